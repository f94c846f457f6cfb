#include "app/PasswordCommand.h"

#include "support/ls_Keychain.h"
#include "utils/ComputerInfoFile.h"
#include "utils/vd_FileUtils.h"

#include <QFile>
#include <QStringDecoder>
#include <QTextStream>

#include <termios.h>
#include <unistd.h>

#include <optional>

namespace {

// Longer than anyone types; a bigger input is a mistake (a file piped in), not a password.
constexpr qint64 kMaxPasswordBytes = 1024;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

// Turns terminal echo off for its lifetime when standard input is a terminal.
class HiddenInput
{
public:
    HiddenInput()
    {
        if (::isatty(STDIN_FILENO) && ::tcgetattr(STDIN_FILENO, &m_saved) == 0) {
            struct termios quiet = m_saved;
            quiet.c_lflag &= ~tcflag_t(ECHO);
            m_active = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0;
            err() << "New computer password: ";
            err().flush();
        }
    }
    ~HiddenInput()
    {
        if (m_active) {
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_saved);
            err() << "\n";
            err().flush();
        }
    }
    HiddenInput(const HiddenInput &) = delete;
    HiddenInput &operator=(const HiddenInput &) = delete;

private:
    struct termios m_saved
    {};
    bool m_active = false;
};

// The first line of standard input without its line end; none, with a message, when it is unusable.
std::optional<QString> readPassword()
{
    QByteArray line;
    {
        const HiddenInput hidden;
        QFile input;
        if (input.open(stdin, QIODevice::ReadOnly))
            line = input.readLine(kMaxPasswordBytes + 2);
    }
    const bool complete = line.endsWith('\n');
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    if (!complete && line.size() > kMaxPasswordBytes) {
        err() << "vandrel: the password is longer than " << kMaxPasswordBytes
              << " bytes; nothing was changed\n";
        return std::nullopt;
    }
    if (line.isEmpty()) {
        err() << "vandrel: no password on standard input; 'vandrel password clear' removes the password\n";
        return std::nullopt;
    }
    QStringDecoder utf8(QStringDecoder::Utf8);
    const QString password = utf8.decode(line);
    if (utf8.hasError() || line.contains('\0')) {
        err() << "vandrel: the password is not valid UTF-8 text; nothing was changed\n";
        return std::nullopt;
    }
    return password;
}

// Stores the text (empty: no password) and republishes "pword_required" in every StorageRoot.
bool store(const QString &password)
{
    const QString key = vd_FileUtils::keyForComputerPassword();
    ls_Keychain::setString(password, key);
    if (ls_Keychain::stringForKey(key).value_or(QString()) != password) {
        err() << "vandrel: the keychain did not take the password; nothing was changed\n";
        return false;
    }
    ComputerInfoFile::updateComputerInfo();
    return true;
}

bool isSet()
{
    return !ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()).isEmpty();
}

} // namespace

int PasswordCommand::run(const QStringList &args)
{
    const QString action = args.value(0);
    if (args.size() != 1 || (action != u"set" && action != u"clear" && action != u"status")) {
        err() << "Usage: vandrel password set|clear|status\n"
              << "  set reads the new password from standard input, never from the command line.\n";
        return 64;
    }
    if (action == u"status") {
        out() << (isSet() ? "A computer password is set.\n" : "No computer password is set.\n");
        return 0;
    }
    if (action == u"clear") {
        if (!store(QStringLiteral("")))
            return 1;
        out() << "The computer password is cleared.\n";
        return 0;
    }
    const std::optional<QString> password = readPassword();
    if (!password || !store(*password))
        return 1;
    out() << "The computer password is set.\n";
    return 0;
}
