#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <map>

// Points $HOME, the XDG base directories and the runtime folder into a fresh temporary folder for the
// lifetime of the object, and restores the previous environment afterwards. Tests run whole subsystems inside
// it.
class TempHome
{
public:
    TempHome();
    ~TempHome();
    TempHome(const TempHome &) = delete;
    TempHome &operator=(const TempHome &) = delete;

    QString path() const { return m_dir.path(); }
    QString filePath(const QString &relative) const { return m_dir.filePath(relative); }

    // Writes bytes to a file below the home, creating parent folders. Returns the absolute path.
    QString writeFile(const QString &relative, const QByteArray &content) const;

    // Sets an environment variable until the home goes.
    void setEnvironment(const char *name, const QByteArray &value);

private:
    QTemporaryDir m_dir;
    std::map<QByteArray, std::pair<bool, QByteArray>> m_saved;
};

// The whole content of a file; empty when it cannot be read.
QByteArray readFile(const QString &path);
// Writes bytes to a file, creating its parent folders.
void writeFile(const QString &path, const QByteArray &content);
