#include "TempHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

TempHome::TempHome()
{
    setEnvironment("HOME", QFile::encodeName(m_dir.path()));
    setEnvironment("XDG_CONFIG_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral(".config"))));
    setEnvironment("XDG_DATA_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral(".local/share"))));
    setEnvironment("XDG_CACHE_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral(".cache"))));
    setEnvironment("XDG_STATE_HOME", QFile::encodeName(m_dir.filePath(QStringLiteral(".local/state"))));
    // Agents started by tests listen for hand-overs here, each home its own (hidden, so no index sees it).
    setEnvironment("XDG_RUNTIME_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral(".run"))));
    for (const char *sub : {".config", ".local/share", ".cache", ".local/state", ".run"})
        QDir(m_dir.path()).mkpath(QString::fromLatin1(sub));
    QFile::setPermissions(m_dir.filePath(QStringLiteral(".run")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

TempHome::~TempHome()
{
    for (const auto &[name, saved] : m_saved) {
        if (saved.first)
            qputenv(name.constData(), saved.second);
        else
            qunsetenv(name.constData());
    }
}

void TempHome::setEnvironment(const char *name, const QByteArray &value)
{
    m_saved.emplace(QByteArray(name), std::make_pair(qEnvironmentVariableIsSet(name), qgetenv(name)));
    qputenv(name, value);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

QString TempHome::writeFile(const QString &relative, const QByteArray &content) const
{
    const QString full = filePath(relative);
    ::writeFile(full, content);
    return full;
}
