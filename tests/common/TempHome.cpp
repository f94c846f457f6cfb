#include "TempHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

TempHome::TempHome()
{
    set("HOME", m_dir.path());
    set("XDG_CONFIG_HOME", m_dir.filePath(QStringLiteral(".config")));
    set("XDG_DATA_HOME", m_dir.filePath(QStringLiteral(".local/share")));
    set("XDG_CACHE_HOME", m_dir.filePath(QStringLiteral(".cache")));
    set("XDG_STATE_HOME", m_dir.filePath(QStringLiteral(".local/state")));
    // Agents started by tests listen for hand-overs here, each home its own (hidden, so no index sees it).
    set("XDG_RUNTIME_DIR", m_dir.filePath(QStringLiteral(".run")));
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

void TempHome::set(const char *name, const QString &value)
{
    m_saved.emplace(QByteArray(name), std::make_pair(qEnvironmentVariableIsSet(name), qgetenv(name)));
    qputenv(name, QFile::encodeName(value));
}

QString TempHome::writeFile(const QString &relative, const QByteArray &content) const
{
    const QString full = filePath(relative);
    QDir().mkpath(QFileInfo(full).absolutePath());
    QFile file(full);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
    return full;
}
