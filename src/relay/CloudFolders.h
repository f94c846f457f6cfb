#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <optional>
#include <variant>

// The synced folders the relay shares with agents, and every file access the browser side makes in them.
// Paths from browsers are relative to a StorageRoot and are refused unless they stay inside it: no "..",
// no absolute paths, no symbolic links that lead out.
class CloudFolders
{
public:
    explicit CloudFolders(const QStringList &folders);

    // The synced folders as given.
    const QStringList &folders() const { return m_folders; }
    // "<folder>/Apps/vandrel" for each folder, in the order given.
    const QStringList &storageRoots() const { return m_roots; }
    int count() const { return int(m_roots.size()); }

    // The computers that wrote info files, newest first, one entry per computer id.
    QJsonArray computers() const;

    struct Failure
    {
        int status;
        QByteArray code;
        QString message;
    };

    // An open file descriptor of a regular file inside StorageRoot `cloud`, with its file name.
    struct OpenedFile
    {
        int fd;
        QString fileName;
    };
    std::variant<OpenedFile, Failure> openForDownload(int cloud, const QString &relativePath) const;

    // A new temporary file in this month's uploads folder of StorageRoot `cloud`, and its path.
    struct UploadTarget
    {
        int fd;
        QString temporaryPath;
    };
    std::variant<UploadTarget, Failure> createUpload(int cloud, const QString &name) const;
    // Gives the finished temporary file a free name beside it (`name`, "name (2)"…, nothing overwritten)
    // and returns the path relative to the StorageRoot; none when no name could be had (the file is removed).
    std::optional<QString> finishUpload(int cloud, const QString &temporaryPath, const QString &name) const;

    // The file under `root` that `relativePath` names, when it is a regular file inside it.
    static std::optional<QString> resolveInside(const QString &root, const QString &relativePath);
    static bool isSafeFileName(const QString &name);

private:
    QStringList m_folders;
    QStringList m_roots;
};
