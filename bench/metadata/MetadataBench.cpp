// Builds a synthetic tree and prints the metadata index's figures beside plocate's and Recoll's.
//   metadata_bench --files 200000 --dir /tmp/vandrel-bench [--seed 7] [--no-peers] [--no-recoll]
// The tree is made once per size and seed and reused.

#include "metadata/MetadataIndex.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTextStream>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <vector>

extern char **environ;

namespace {

const char *const kWords[] = {
    "report",  "invoice", "budget", "holiday",  "photo",  "draft",  "final",   "notes",  "summary", "project",
    "meeting", "letter",  "scan",   "contract", "resume", "tax",    "receipt", "plan",   "design",  "backup",
    "music",   "video",   "family", "garden",   "travel", "recipe", "paper",   "thesis", "chapter", "slides",
    "alpha",   "beta",    "gamma",  "delta",    "omega",  "kappa",  "sigma",   "lambda", "vector",  "matrix",
};
const char *const kAccented[] = {"résumé", "café", "zürich", "crème", "naïve", "façade", "señor", "smörgås"};
const char *const kExtensions[] = {".txt", ".jpg", ".png",  ".pdf",  ".docx", ".md", ".c",    ".mp3",
                                   ".mp4", ".zip", ".jpeg", ".html", ".csv",  ".py", ".json", ".odt"};

struct Tree
{
    std::vector<std::string> names; // a sample of file names, for exact-name queries
};

Tree generate(const std::string &dir, long files, unsigned seed)
{
    Tree tree;
    std::mt19937_64 rng(seed);
    auto pick = [&](auto &array) { return array[rng() % (sizeof(array) / sizeof(array[0]))]; };
    const std::string marker = dir + "/.generated-" + std::to_string(files) + "-" + std::to_string(seed);
    const bool exists = access(marker.c_str(), F_OK) == 0;
    if (!exists) {
        std::string command = "rm -rf '" + dir + "'";
        if (system(command.c_str()) != 0)
            return tree;
        QDir().mkpath(QString::fromStdString(dir));
    }
    std::vector<std::string> folders{dir};
    for (long i = 0; i < files; ++i) {
        // A new folder every ~20 files, below a random existing one, at most 12 deep.
        if (i % 20 == 0) {
            const std::string &parent = folders[rng() % folders.size()];
            const long depth = std::count(parent.begin() + long(dir.size()), parent.end(), '/');
            const std::string &base = depth >= 12 ? folders.front() : parent;
            folders.push_back(base + "/" + pick(kWords) + std::to_string(rng() % 1000));
            if (!exists)
                mkdir(folders.back().c_str(), 0755);
        }
        const std::string &folder =
            folders[folders.size() - 1 - rng() % std::min<size_t>(folders.size(), 50)];
        const bool text = rng() % 10 == 0;
        std::string name = rng() % 25 == 0 ? pick(kAccented) : pick(kWords);
        name += (rng() % 2 ? " " : "_") + std::string(pick(kWords)) + " " + std::to_string(i);
        name += text ? ".txt" : pick(kExtensions);
        if (i % 1000 == 0)
            tree.names.push_back(name);
        if (exists)
            continue;
        const std::string path = folder + "/" + name;
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0)
            continue;
        if (text) {
            std::string body;
            for (int w = 0; w < 60; ++w)
                body += std::string(pick(kWords)) + (w % 7 == 6 ? ".\n" : " ");
            body += "unique" + std::to_string(i) + "\n";
            [[maybe_unused]] const ssize_t n = write(fd, body.data(), body.size());
        }
        const timespec times[2] = {{0, UTIME_OMIT}, {time_t(1300000000 + long(rng() % 400000000)), 0}};
        futimens(fd, times);
        close(fd);
    }
    if (!exists)
        close(open(marker.c_str(), O_WRONLY | O_CREAT, 0644));
    return tree;
}

struct Run
{
    double seconds = 0;
    long maxRssKb = 0;
    std::string output;
};

// Runs a command through the shell, timing it and reading its peak memory.
Run run(const std::string &command)
{
    Run result;
    QElapsedTimer timer;
    timer.start();
    const std::string outFile = "/tmp/vandrel-bench-out.txt";
    const std::string shell = command + " > " + outFile + " 2>/dev/null";
    const char *argv[] = {"/bin/sh", "-c", shell.c_str(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char **>(argv), environ) != 0)
        return result;
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    result.seconds = double(timer.nsecsElapsed()) / 1e9;
    result.maxRssKb = usage.ru_maxrss;
    QFile out(QString::fromStdString(outFile));
    if (out.open(QIODevice::ReadOnly))
        result.output = out.readAll().toStdString();
    return result;
}

bool have(const char *program)
{
    return system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

long peakRssKb()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

struct Figures
{
    std::vector<double> ms;
    void add(double value) { ms.push_back(value); }
    QString text() const
    {
        if (ms.empty())
            return QStringLiteral("-");
        std::vector<double> sorted = ms;
        std::sort(sorted.begin(), sorted.end());
        return QStringLiteral("%1 / %2")
            .arg(sorted[sorted.size() / 2], 0, 'f', 2)
            .arg(sorted.back(), 0, 'f', 2);
    }
};

struct QueryClass
{
    QString name;
    std::vector<QString> terms;
    enum Kind { NamePrefix, NameSubstring, Exact, Type, Content, TwoContent } kind;
};

QString ourQuery(const QueryClass &c, const QString &term)
{
    const QString system = QStringLiteral(" && (kMDItemSupportFileType != MDSystemFile)");
    auto any = [](const QString &t) {
        return QStringLiteral("( * == \"%1*\"cdw || kMDItemTextContent == \"%1*\"cdw )").arg(t);
    };
    switch (c.kind) {
    case QueryClass::NamePrefix:
        return QStringLiteral("( kMDItemDisplayName == \"%1*\"cd )").arg(term) + system;
    case QueryClass::NameSubstring:
        return QStringLiteral("( kMDItemDisplayName == \"*%1*\"cd )").arg(term) + system;
    case QueryClass::Exact:
        return QStringLiteral("( kMDItemFSName == \"%1\" )").arg(term);
    case QueryClass::Type:
        return QStringLiteral("( kMDItemContentTypeTree == \"%1\" )").arg(term) + system;
    case QueryClass::Content:
        return any(term) + system;
    case QueryClass::TwoContent: {
        const QStringList parts = term.split(u' ');
        return any(parts.value(0)) + QStringLiteral(" && ") + any(parts.value(1)) + system;
    }
    }
    return {};
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    long files = 200000;
    unsigned seed = 7;
    std::string dir = "/tmp/vandrel-bench";
    bool peers = true;
    bool recollToo = true;
    const QStringList args = app.arguments();
    for (qsizetype i = 1; i < args.size(); ++i) {
        if (args[i] == u"--files" && i + 1 < args.size())
            files = args[++i].toLong();
        else if (args[i] == u"--seed" && i + 1 < args.size())
            seed = args[++i].toUInt();
        else if (args[i] == u"--dir" && i + 1 < args.size())
            dir = args[++i].toStdString();
        else if (args[i] == u"--no-peers")
            peers = false;
        else if (args[i] == u"--no-recoll")
            recollToo = false;
    }
    const std::string treeDir = dir + "/tree";
    QDir().mkpath(QString::fromStdString(dir));
    QElapsedTimer timer;
    timer.start();
    const Tree tree = generate(treeDir, files, seed);
    out << "tree: " << files << " files under " << QString::fromStdString(treeDir) << " (made or checked in "
        << timer.elapsed() / 1000.0 << " s)\n";
    out.flush();
    [[maybe_unused]] int dropped = system("sync");

    const Run find = run("find '" + treeDir + "' -printf '%p %s %T@\\n' | wc -l");
    out << "find -printf walk: " << find.seconds << " s\n";

    // Names only, then a second store with content extraction.
    const QString store = QString::fromStdString(dir + "/index.db");
    for (const char *suffix : {"", "-wal", "-shm"})
        QFile::remove(store + QLatin1String(suffix));
    MetadataConfig config;
    config.roots = {QString::fromStdString(treeDir)};
    config.storePath = store;
    config.extract = false;
    config.lowPriority = false;
    const long rssBefore = peakRssKb();
    timer.restart();
    auto names = std::make_unique<MetadataIndex>(config);
    names->updateNow();
    const double nameBuild = timer.elapsed() / 1000.0;
    const MetadataIndexStatus nameStatus = names->status();
    out << "vandrel name build: " << nameBuild << " s (" << nameBuild / std::max(find.seconds, 1e-9)
        << "x find), peak RSS " << peakRssKb() / 1024 << " MB (was " << rssBefore / 1024 << " MB)\n";
    names.reset();

    config.extract = true;
    timer.restart();
    MetadataIndex index(config);
    index.updateNow();
    const double contentBuild = timer.elapsed() / 1000.0;
    const MetadataIndexStatus status = index.status();
    out << "vandrel content build (extraction on top of the loaded names): " << contentBuild << " s, "
        << status.textDocuments << " text documents, peak RSS " << peakRssKb() / 1024 << " MB\n";
    const double records = double(std::max<qint64>(1, status.files + status.folders));
    out << "store: " << status.storeBytes / (1024.0 * 1024.0) << " MB; name table "
        << status.memoryBytes / records << " bytes a record beyond the names, names "
        << status.nameBytes / records << " bytes a record (" << qint64(records) << " records)\n";
    out.flush();
    (void)nameStatus;

    std::vector<QString> exact;
    for (const std::string &name : tree.names)
        exact.push_back(QString::fromStdString(name));
    const std::vector<QueryClass> classes = {
        {QStringLiteral("1 char"),
         {"a", "b", "m", "r", "s", "x", "q", "z", "t", "p"},
         QueryClass::NamePrefix},
        {QStringLiteral("2 chars"),
         {"re", "ot", "ax", "zu", "qu", "mm", "ep", "ig", "ud", "sl"},
         QueryClass::NameSubstring},
        {QStringLiteral("3 chars"),
         {"rep", "inv", "bud", "pho", "tax", "pla", "zur", "xyz", "mat", "ome"},
         QueryClass::NameSubstring},
        {QStringLiteral("6 chars"),
         {"report", "invoic", "holida", "contra", "thesis", "lambda", "recipe", "garden", "qwerty", "matrix"},
         QueryClass::NameSubstring},
        {QStringLiteral("accented"),
         {"resume", "cafe", "zurich", "creme", "naive", "facade", "senor", "smorgas"},
         QueryClass::NameSubstring},
        {QStringLiteral("exact name"), exact, QueryClass::Exact},
        {QStringLiteral("type only"),
         {"public.image", "com.adobe.pdf", "public.movie", "public.audio", "public.folder",
          "public.plain-text"},
         QueryClass::Type},
        {QStringLiteral("1 content word"),
         {"budget", "unique123", "thesis", "omega", "garden", "unique99999"},
         QueryClass::Content},
        {QStringLiteral("2 content prefixes"),
         {"budg holi", "the ome", "gar rec", "uniq mat", "vec sig"},
         QueryClass::TwoContent},
    };

    const bool withPlocate = peers && have("plocate") && have("updatedb");
    const bool withRecoll = peers && recollToo && have("recollindex") && have("recollq");
    const std::string plocateDb = dir + "/plocate.db";
    if (withPlocate) {
        const Run build = run("updatedb -l 0 -U '" + treeDir + "' -o '" + plocateDb + "'");
        out << "plocate updatedb: " << build.seconds << " s, peak RSS " << build.maxRssKb / 1024 << " MB, db "
            << QFileInfo(QString::fromStdString(plocateDb)).size() / (1024.0 * 1024.0) << " MB\n";
    }
    const std::string recollDir = dir + "/recoll";
    if (withRecoll) {
        QDir().mkpath(QString::fromStdString(recollDir));
        QFile conf(QString::fromStdString(recollDir + "/recoll.conf"));
        if (conf.open(QIODevice::WriteOnly))
            conf.write(QByteArray("topdirs = ") + treeDir.c_str() + "\nloglevel = 1\n");
        conf.close();
        [[maybe_unused]] int cleared = system(("rm -rf '" + recollDir + "/xapiandb'").c_str());
        const Run build = run("recollindex -c '" + recollDir + "'");
        out << "recollindex: " << build.seconds << " s, peak RSS " << build.maxRssKb / 1024 << " MB\n";
    }
    out.flush();

    out << "\nquery class            vandrel ms (median / worst)   plocate ms          recoll ms\n";
    for (const QueryClass &c : classes) {
        Figures ours, plocate, recoll;
        for (const QString &term : c.terms) {
            for (int repeat = 0; repeat < 3; ++repeat) {
                QElapsedTimer t;
                t.start();
                const MetadataQueryResult result = index.query(
                    ourQuery(c, term), {}, QStringLiteral("kMDItemContentModificationDate"), true, 600);
                ours.add(double(t.nsecsElapsed()) / 1e6);
                (void)result;
            }
            const std::string quoted = "'" + term.toStdString() + "'";
            if (withPlocate && c.kind != QueryClass::Type && c.kind != QueryClass::Content &&
                c.kind != QueryClass::TwoContent)
                plocate.add(run("plocate -d '" + plocateDb + "' -b -i -l 600 " + quoted).seconds * 1000);
            if (withRecoll && (c.kind == QueryClass::Content || c.kind == QueryClass::TwoContent)) {
                QString words = term;
                words.replace(u' ', QStringLiteral("* "));
                recoll.add(
                    run("recollq -c '" + recollDir + "' -n 600 '" + words.toStdString() + "*'").seconds *
                    1000);
            }
        }
        out << c.name.leftJustified(22) << " " << ours.text().leftJustified(29) << " "
            << plocate.text().leftJustified(19) << " " << recoll.text() << "\n";
    }
    return 0;
}
