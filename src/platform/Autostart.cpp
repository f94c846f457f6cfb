#include "platform/Autostart.h"

#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

// A start-up entry is a few lines; anything bigger is not one of ours and is not read in full.
constexpr qint64 kMaxEntryBytes = 64 * 1024;

// Characters that make the desktop entry rules ask for a quoted argument.
constexpr QStringView kReserved = u" \t\n\"'\\><~|&;$*?#()`";

// The value's string escapes (\s \n \t \r \\) undone.
QString unescapeValue(QStringView value)
{
    QString text;
    text.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        if (value[i] != u'\\' || i + 1 == value.size()) {
            text.append(value[i]);
            continue;
        }
        const QChar next = value[++i];
        if (next == u's')
            text.append(u' ');
        else if (next == u'n')
            text.append(u'\n');
        else if (next == u't')
            text.append(u'\t');
        else if (next == u'r')
            text.append(u'\r');
        else
            text.append(next);
    }
    return text;
}

// The first argument of an unescaped Exec value: a quoted argument up to its closing quote, else the text
// up to the first blank.
QString firstArgument(QStringView exec)
{
    qsizetype i = 0;
    while (i < exec.size() && exec[i].isSpace())
        ++i;
    QString argument;
    if (i < exec.size() && exec[i] == u'"') {
        for (++i; i < exec.size() && exec[i] != u'"'; ++i) {
            if (exec[i] == u'\\' && i + 1 < exec.size())
                ++i;
            argument.append(exec[i]);
        }
        return i < exec.size() ? argument : QString(); // no closing quote: not a valid line
    }
    for (; i < exec.size() && !exec[i].isSpace(); ++i)
        argument.append(exec[i]);
    return argument;
}

struct Entry
{
    QString exec;
    bool active = true;
};

std::optional<Entry> readEntry(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxEntryBytes)
        return std::nullopt;
    const QString text = QString::fromUtf8(file.read(kMaxEntryBytes));
    Entry entry;
    bool inMainGroup = false;
    for (QStringView line : QStringView(text).split(u'\n')) {
        line = line.trimmed();
        if (line.startsWith(u'[')) {
            inMainGroup = line == u"[Desktop Entry]";
            continue;
        }
        const qsizetype equals = line.indexOf(u'=');
        if (!inMainGroup || equals <= 0 || line.startsWith(u'#'))
            continue;
        const QStringView key = line.left(equals).trimmed();
        const QStringView value = line.mid(equals + 1).trimmed();
        if (key == u"Exec")
            entry.exec = unescapeValue(value);
        else if ((key == u"Hidden" && value == u"true") ||
                 (key == u"X-GNOME-Autostart-enabled" && value == u"false"))
            entry.active = false;
    }
    return entry;
}

QString resolve(const QString &program)
{
    if (program.isEmpty())
        return {};
    QString path = program;
    if (!program.contains(u'/'))
        path = QStandardPaths::findExecutable(program);
    else if (QDir::isRelativePath(program))
        return {}; // relative to an unknown working folder
    return path.isEmpty() ? QString() : QFileInfo(path).canonicalFilePath();
}

QString canonicalProgram(const QString &programPath)
{
    const QString canonical = QFileInfo(programPath).canonicalFilePath();
    return canonical.isEmpty() ? programPath : canonical;
}

bool belongsTo(const QString &resolved, const QString &programPath)
{
    return !resolved.isEmpty() && !programPath.isEmpty() &&
           resolved.startsWith(canonicalProgram(programPath));
}

} // namespace

Autostart::Autostart()
    : Autostart(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                QStringLiteral("/autostart"))
{}

Autostart::Autostart(QString folder)
    : m_folder(std::move(folder))
{}

bool Autostart::open() const
{
    return QDir().mkpath(m_folder) && QFileInfo(m_folder).isWritable();
}

QStringList Autostart::entryFiles() const
{
    QStringList files;
    const QDir dir(m_folder);
    for (const QString &name : dir.entryList({QStringLiteral("*.desktop")}, QDir::Files | QDir::Hidden))
        files << dir.filePath(name);
    return files;
}

QString Autostart::resolvedProgram(const QString &desktopFile)
{
    const std::optional<Entry> entry = readEntry(desktopFile);
    return entry ? resolve(firstArgument(entry->exec)) : QString();
}

bool Autostart::hasEntryFor(const QString &programPath) const
{
    for (const QString &file : entryFiles()) {
        const std::optional<Entry> entry = readEntry(file);
        if (entry && entry->active && belongsTo(resolve(firstArgument(entry->exec)), programPath))
            return true;
    }
    return false;
}

QString Autostart::execLine(const QString &programPath, const QStringList &arguments)
{
    QStringList quoted;
    for (const QString &argument : QStringList{programPath} + arguments) {
        const bool needsQuotes =
            argument.isEmpty() ||
            std::any_of(argument.begin(), argument.end(), [](QChar c) { return kReserved.contains(c); });
        if (!needsQuotes) {
            quoted << argument;
            continue;
        }
        QString text = QStringLiteral("\"");
        for (const QChar c : argument) {
            if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
                text.append(u'\\');
            text.append(c);
        }
        quoted << text + u'"';
    }
    // The value's own escapes come on top of the argument quoting.
    QString value = quoted.join(u' ');
    value.replace(u'\\', QStringLiteral("\\\\"));
    value.replace(u'\n', QStringLiteral("\\n"));
    value.replace(u'\t', QStringLiteral("\\t"));
    value.replace(u'\r', QStringLiteral("\\r"));
    return value;
}

QString Autostart::addEntry(const QString &programPath, const QStringList &arguments) const
{
    if (programPath.isEmpty() || !open()) {
        qCWarning(lcPlatform).noquote() << "cannot add an autostart entry in" << m_folder;
        return {};
    }
    const QByteArray content = QStringLiteral("[Desktop Entry]\n"
                                              "Type=Application\n"
                                              "Name=Vandrel\n"
                                              "Comment=Reach this computer's files from the Vandrel web app\n"
                                              "Exec=%1\n"
                                              "Icon=vandrel\n"
                                              "Terminal=false\n"
                                              "X-GNOME-Autostart-enabled=true\n")
                                   .arg(execLine(programPath, arguments))
                                   .toUtf8();
    for (int number = 1; number < 100; ++number) {
        const QString name = number == 1 ? QStringLiteral("vandrel.desktop")
                                         : QStringLiteral("vandrel-%1.desktop").arg(number);
        QFile file(QDir(m_folder).filePath(name));
        if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
            if (file.exists())
                continue;
            break;
        }
        if (file.write(content) == content.size() && file.flush())
            return file.fileName();
        file.remove();
        break;
    }
    qCWarning(lcPlatform).noquote() << "cannot write an autostart entry in" << m_folder;
    return {};
}

int Autostart::removeEntriesFor(const QString &programPath) const
{
    int removed = 0;
    for (const QString &file : entryFiles()) {
        if (!belongsTo(resolvedProgram(file), programPath))
            continue;
        if (QFile::remove(file))
            ++removed;
        else
            qCWarning(lcPlatform).noquote() << "cannot remove the autostart entry" << file;
    }
    return removed;
}
