#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// A folder below a synced folder, reached one component at a time without following symbolic links, so that
// a link someone planted in the synced folder cannot send a write or a delete anywhere else. Every
// operation works on the open folder, never on a path. Owns its file descriptor.
class NoFollowFolder
{
public:
    // One component below the base: its name, and what it is called in a log line ("sessions folder"), since
    // relay logs never show paths.
    struct Step
    {
        QString name;
        QString kind;
    };

    // Opens `base` (trusted: the folder the relay was given) and then each step below it as a real folder,
    // creating the missing ones when `create` is set. Nothing when a step is a symbolic link, not a folder,
    // or cannot be opened; `refusal` then says which kind of component and why (empty when a step is simply
    // missing and not to be created).
    static std::optional<NoFollowFolder> open(const QString &base, const QList<Step> &steps, bool create,
                                              QString &refusal);

    NoFollowFolder(NoFollowFolder &&other) noexcept;
    NoFollowFolder &operator=(NoFollowFolder &&other) noexcept;
    NoFollowFolder(const NoFollowFolder &) = delete;
    NoFollowFolder &operator=(const NoFollowFolder &) = delete;
    ~NoFollowFolder();

    // Replaces the regular file `name` with `content` all at once: written to a new file beside it, then
    // renamed over it. Refuses, with `refusal` naming `kind`, when `name` is a symbolic link or anything but
    // a regular file.
    bool writeAtomically(const QString &name, const QString &kind, const QByteArray &content,
                         QString &refusal) const;
    // Removes the entry `name` itself (a symbolic link is removed, never its target); true when it is gone.
    bool remove(const QString &name) const;

private:
    explicit NoFollowFolder(int fd);

    int m_fd = -1;
};
