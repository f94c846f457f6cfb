#include "handlers/ExternalThumbnailer.h"

#include "handlers/HandlersLog.h"
#include "support/Logging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QMimeDatabase>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>

#include <sys/resource.h>
#include <sys/stat.h>

#include <map>
#include <mutex>

namespace ExternalThumbnailer {

namespace {

constexpr int kTimeLimitMs = 12000;
constexpr rlim_t kMemoryLimit = rlim_t(1) << 30;
// A thumbnail is a few hundred pixels a side; a bigger file is not one.
constexpr qint64 kMaxOutputBytes = 16 * 1024 * 1024;

std::mutex s_failedLock;            // guards s_failed
std::map<QString, qint64> s_failed; // path -> modification time at which its thumbnailer failed

qint64 modificationTime(const QString &path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? qint64(info.st_mtim.tv_sec) : -1;
}

// The keys of the [Thumbnailer Entry] group of a .thumbnailer file. A desktop-entry file, not an INI file:
// ";" separates list items there instead of starting a comment.
QMap<QString, QString> thumbnailerEntry(const QString &file)
{
    QMap<QString, QString> keys;
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly | QIODevice::Text))
        return keys;
    bool inGroup = false;
    while (!input.atEnd()) {
        const QString line = QString::fromUtf8(input.readLine(64 * 1024)).trimmed();
        if (line.startsWith(u'['))
            inGroup = line == u"[Thumbnailer Entry]";
        else if (inGroup && line.contains(u'=') && !line.startsWith(u'#'))
            keys.insert(line.section(u'=', 0, 0).trimmed(), line.section(u'=', 1).trimmed());
    }
    return keys;
}

// The command line of the machine's thumbnailer for the MIME type (or one of its parents), with its
// placeholders filled; empty when there is none.
QStringList desktopThumbnailer(const QString &path, const QString &mimeType, int size, const QString &output)
{
    QStringList accepted{mimeType};
    accepted += QMimeDatabase().mimeTypeForName(mimeType).allAncestors();
    const QStringList dataDirs = QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
    for (const QString &dataDir : dataDirs) {
        const QFileInfoList entries =
            QDir(dataDir + QStringLiteral("/thumbnailers"))
                .entryInfoList({QStringLiteral("*.thumbnailer")}, QDir::Files, QDir::Name);
        for (const QFileInfo &entry : entries) {
            const QMap<QString, QString> file = thumbnailerEntry(entry.filePath());
            const QStringList types = file.value(QStringLiteral("MimeType")).split(u';', Qt::SkipEmptyParts);
            const QString tryExec = file.value(QStringLiteral("TryExec"));
            if (!tryExec.isEmpty() && QStandardPaths::findExecutable(tryExec).isEmpty() &&
                !QFileInfo(tryExec).isExecutable())
                continue;
            bool matches = false;
            for (const QString &type : accepted)
                matches = matches || types.contains(type);
            if (!matches)
                continue;
            QStringList command = QProcess::splitCommand(file.value(QStringLiteral("Exec")));
            for (QString &argument : command) {
                argument.replace(QStringLiteral("%s"), QString::number(size));
                argument.replace(QStringLiteral("%u"),
                                 QString::fromUtf8(QUrl::fromLocalFile(path).toEncoded()));
                argument.replace(QStringLiteral("%i"), path);
                argument.replace(QStringLiteral("%o"), output);
                argument.replace(QStringLiteral("%%"), QStringLiteral("%"));
            }
            return command;
        }
    }
    return {};
}

QStringList commandFor(const QString &path, const QString &mimeType, int size, const QString &output)
{
    // PDF and SVG through libvips' own tool, which renders them at the size asked for.
    if (mimeType == u"application/pdf" || mimeType == u"image/svg+xml") {
        const QString tool = QStandardPaths::findExecutable(QStringLiteral("vipsthumbnail"));
        if (!tool.isEmpty())
            return {tool,
                    path,
                    QStringLiteral("--size"),
                    QStringLiteral("%1x%1").arg(size),
                    QStringLiteral("-o"),
                    output};
    }
    return desktopThumbnailer(path, mimeType, size, output);
}

} // namespace

std::optional<vips::VImage> thumbnail(const QString &path, const QString &mimeType, int size)
{
    const qint64 mtime = modificationTime(path);
    {
        const std::lock_guard guard(s_failedLock);
        const auto failed = s_failed.find(path);
        if (failed != s_failed.end() && failed->second == mtime)
            return std::nullopt;
    }
    QTemporaryDir workspace;
    const QString output = workspace.filePath(QStringLiteral("thumbnail.png"));
    const QStringList command = commandFor(path, mimeType, size, output);
    if (command.isEmpty())
        return std::nullopt;

    QProcess child;
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // Only the picture file is read; whatever the child prints would otherwise pile up in memory.
    child.setStandardOutputFile(QProcess::nullDevice());
    child.setChildProcessModifier([] {
        const struct rlimit memory = {kMemoryLimit, kMemoryLimit};
        ::setrlimit(RLIMIT_AS, &memory);
    });
    child.start(command.first(), command.mid(1));
    const bool finished = child.waitForStarted(kTimeLimitMs) && child.waitForFinished(kTimeLimitMs);
    if (!finished) {
        child.kill();
        child.waitForFinished(2000);
    }
    std::optional<vips::VImage> picture;
    if (finished && child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0 &&
        QFileInfo(output).size() <= kMaxOutputBytes) {
        try {
            const vips::VImage written = vips::VImage::new_from_file(
                QFile::encodeName(output).constData(), vips::VImage::option()->set("fail", true));
            if (qint64(written.width()) * written.height() <= kMaxSourcePixels)
                picture = written.copy_memory();
        } catch (const vips::VError &) {
            picture.reset();
        }
    }
    if (!picture) {
        qCWarning(lcHandlers).noquote()
            << QStringLiteral("no thumbnail for %1: %2 %3")
                   .arg(Logging::shownInLog(path), QFileInfo(command.first()).fileName(),
                        finished ? QStringLiteral("failed") : QStringLiteral("timed out"));
        const std::lock_guard guard(s_failedLock);
        s_failed[path] = mtime;
    }
    return picture;
}

} // namespace ExternalThumbnailer
