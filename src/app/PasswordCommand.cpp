#include "app/PasswordCommand.h"

#include "app/vd_PreferencesController.h"
#include "platform/FileSecretStore.h"
#include "platform/SecretStore.h"
#include "utils/vd_FileUtils.h"

#include <QFile>
#include <QStringDecoder>
#include <QTextStream>

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <optional>

namespace {

// Longer than anyone types: a bigger input is a file piped in by mistake, not a password.
constexpr qint64 kMaxPasswordBytes = 1024;

// One line from standard input; on a terminal the typing is not echoed. None, with a message, when the
// line is empty, too long or not UTF-8 text: storing a cut or altered text would lock the user out.
std::optional<QString> readPasswordLine()
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
    // Byte by byte: readLine would end the text at a zero byte and store only what came before it.
    QByteArray line;
    char byte = 0;
    while (line.size() <= kMaxPasswordBytes + 1 && input.getChar(&byte) && byte != '\n')
        line.append(byte);
    if (terminal) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
        std::fputs("\n", stderr);
    }
    if (line.endsWith('\r'))
        line.chop(1);
    QTextStream err(stderr);
    if (line.isEmpty()) {
        err << "vandrel: no password given; use 'vandrel password clear' to remove it\n";
        return std::nullopt;
    }
    if (line.size() > kMaxPasswordBytes) {
        err << "vandrel: the password is longer than " << kMaxPasswordBytes
            << " bytes; nothing was changed\n";
        return std::nullopt;
    }
    // Stateless, so that a sequence cut off at the end counts as an error rather than awaiting more bytes.
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString password = utf8.decode(line);
    if (utf8.hasError() || line.contains('\0')) {
        err << "vandrel: the password is not UTF-8 text; nothing was changed\n";
        return std::nullopt;
    }
    return password;
}

// Where the password is kept and whether it can be read, so that a user can tell a locked keyring from
// a missing password.
void describePassword(QTextStream &out)
{
    const QString store = SecretStore::instanceKind() == u"file"
                              ? QStringLiteral("the file %1").arg(FileSecretStore::defaultPath())
                              : QStringLiteral("the Secret Service");
    QString failure;
    const std::optional<bool> isSet = vd_FileUtils::computerPasswordIsSet(&failure);
    if (!isSet) {
        out << "The computer password cannot be read from " << store << " (" << failure
            << "): the computer refuses every request until it can. Unlock the keyring, or set the password "
               "again with 'vandrel password set'.\n";
        return;
    }
    if (!*isSet)
        out << "No computer password is set (store: " << store << ").\n";
    else
        out << "A computer password is set in " << store << ": the web app must give it for every request.\n";
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
        const std::optional<QString> password = readPasswordLine();
        if (!password)
            return 1;
        vd_PreferencesController::setPassword(*password);
    } else if (action == u"clear") {
        vd_PreferencesController::setPassword(QStringLiteral(""));
    }
    describePassword(out);
    return 0;
}
