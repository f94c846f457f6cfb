#include "app/PasswordCommand.h"

#include "app/vd_PreferencesController.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QFile>
#include <QTextStream>

#include <termios.h>
#include <unistd.h>

#include <cstdio>

namespace {

// One line from standard input; on a terminal the typing is not echoed.
QString readPasswordLine()
{
    const bool terminal = ::isatty(STDIN_FILENO);
    termios saved{};
    if (terminal) {
        std::fputs("New computer password: ", stderr);
        std::fflush(stderr);
        ::tcgetattr(STDIN_FILENO, &saved);
        termios silent = saved;
        silent.c_lflag &= ~tcflag_t(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &silent);
    }
    QFile input;
    input.open(stdin, QIODevice::ReadOnly);
    QByteArray line = input.readLine(64 * 1024);
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fputs("\n", stderr);
    }
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    return QString::fromUtf8(line);
}

bool passwordIsSet()
{
    return !ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()).isEmpty();
}

} // namespace

int runPasswordCommand(const QStringList &args)
{
    QTextStream out(stdout);
    const QString action = args.value(0);
    if (args.size() != 1 || (action != u"set" && action != u"clear" && action != u"status")) {
        QTextStream(stderr) << "usage: vandrel password set|clear|status\n";
        return 64;
    }
    if (action == u"set") {
        const QString password = readPasswordLine();
        if (password.isEmpty()) {
            QTextStream(stderr) << "vandrel: no password given; use 'vandrel password clear' to remove it\n";
            return 1;
        }
        vd_PreferencesController::setPassword(password);
    } else if (action == u"clear") {
        vd_PreferencesController::setPassword(QStringLiteral(""));
    }
    out << (passwordIsSet() ? "A computer password is set: the web app must give it for every request.\n"
                            : "No computer password is set.\n");
    return 0;
}
