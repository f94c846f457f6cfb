#include "app/IndexCommand.h"

#include "app/ConsoleStreams.h"
#include "metadata/MetadataIndex.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QDateTime>
#include <QFile>
#include <QTextStream>

namespace {

QTextStream &out()
{
    return standardOutput();
}

QTextStream &err()
{
    return standardError();
}

QString megabytes(qint64 bytes)
{
    return QString::number(double(bytes) / (1024.0 * 1024.0), 'f', 1) + QStringLiteral(" MB");
}

QString duration(qint64 seconds)
{
    if (seconds < 90)
        return QStringLiteral("%1 s").arg(seconds);
    if (seconds < 90 * 60)
        return QStringLiteral("%1 min").arg((seconds + 30) / 60);
    return QStringLiteral("%1 h %2 min").arg(seconds / 3600).arg(seconds % 3600 / 60);
}

int usage()
{
    err() << "usage: vandrel index status|rebuild|query TEXT [--scope DIR] [--limit N]\n";
    return 64;
}

int status(const MetadataConfig &config)
{
    MetadataIndex index(config);
    index.loadStored();
    const MetadataIndexStatus s = index.status();
    out() << "roots:          " << s.roots.join(QStringLiteral(", ")) << "\n"
          << "files:          " << s.files << "\n"
          << "folders:        " << s.folders << "\n"
          << "text documents: " << s.textDocuments << "\n"
          << "store:          " << config.storePath << " (" << megabytes(s.storeBytes) << ")\n"
          << "memory:         " << megabytes(s.memoryBytes + s.nameBytes) << " (" << megabytes(s.nameBytes)
          << " of it names)\n"
          << "last change:    "
          << (s.lastChange ? QDateTime::fromSecsSinceEpoch(s.lastChange).toString(Qt::ISODate)
                           : QStringLiteral("never"))
          << "\n";
    if (s.crawling)
        out() << "crawl:          running, " << s.crawlPercent << "%\n";
    out() << "indexing:       " << indexProgressText(s) << "\n";
    return 0;
}

int rebuild(const MetadataConfig &config)
{
    for (const char *suffix : {"", "-wal", "-shm"})
        QFile::remove(config.storePath + QLatin1String(suffix));
    MetadataIndex index(config);
    err() << "indexing " << config.roots.join(QStringLiteral(", ")) << "...\n";
    err().flush();
    if (!index.updateNow()) {
        err() << "vandrel: the index store " << config.storePath << " cannot be opened\n";
        return 1;
    }
    const MetadataIndexStatus s = index.status();
    out() << "indexed " << s.files << " files in " << s.folders << " folders, " << s.textDocuments
          << " text documents\n";
    return 0;
}

int query(const MetadataConfig &config, const QStringList &args)
{
    QString text, scope;
    int limit = MetadataIndex::kDefaultMaxCount;
    for (qsizetype i = 0; i < args.size(); ++i) {
        if (args[i] == u"--scope" && i + 1 < args.size()) {
            scope = args[++i];
        } else if (args[i] == u"--limit" && i + 1 < args.size()) {
            bool ok = false;
            limit = args[++i].toInt(&ok);
            if (!ok || limit < 0)
                return usage();
        } else if (text.isEmpty()) {
            text = args[i];
        } else {
            return usage();
        }
    }
    if (text.isEmpty())
        return usage();
    MetadataIndex index(config);
    if (!index.updateNow()) {
        err() << "vandrel: the index store " << config.storePath << " cannot be opened\n";
        return 1;
    }
    const MetadataQueryResult result =
        index.query(text, scope, QStringLiteral("kMDItemContentModificationDate"), true, limit);
    if (!result.ok) {
        err() << "vandrel: " << result.error << "\n";
        return 1;
    }
    for (const QString &path : result.paths)
        out() << path << "\n";
    return 0;
}

} // namespace

QString indexProgressText(const MetadataIndexStatus &s)
{
    const auto left = [&](const char *format) {
        return s.secondsLeft > 0 ? QString::fromLatin1(format).arg(duration(s.secondsLeft)) : QString();
    };
    if (s.crawling)
        return QStringLiteral(
                   "reading names: %1 folders and %2 files read, %3 folders waiting%4; contents next")
            .arg(s.foldersRead)
            .arg(s.filesRead)
            .arg(s.foldersWaiting)
            .arg(left(" (at least %1 more)"));
    if (s.contentsWaiting > 0)
        return QStringLiteral(
                   "names done (%1 folders, %2 files); reading contents: %3 files read, %4 waiting%5")
            .arg(s.folders)
            .arg(s.files)
            .arg(s.contentsRead)
            .arg(s.contentsWaiting)
            .arg(left(", about %1 left"));
    if (s.files == 0 && s.folders == 0)
        return QStringLiteral("nothing indexed yet");
    return QStringLiteral("done (%1 folders, %2 files, text of %3 files)")
        .arg(s.folders)
        .arg(s.files)
        .arg(s.textDocuments);
}

MetadataConfig indexConfigFromSettings()
{
    MetadataConfig config = MetadataConfig::defaults();
    const QStringList roots = UserDefaults::value(SettingsKeys::IndexedRoots).toStringList();
    if (!roots.isEmpty())
        config.roots = roots;
    config.excludes = UserDefaults::value(SettingsKeys::IndexExcludes).toStringList();
    return config;
}

int runIndexCommand(const QStringList &args)
{
    const QString verb = args.value(0);
    const MetadataConfig config = indexConfigFromSettings();
    if (verb == u"status" && args.size() == 1)
        return status(config);
    if (verb == u"rebuild" && args.size() == 1)
        return rebuild(config);
    if (verb == u"query")
        return query(config, args.mid(1));
    return usage();
}
