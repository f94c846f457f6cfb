// Searches as a user meets them: the real `vandrel --headless` in a temporary home indexing a generated
// tree, a relay on 127.0.0.1, and the time from the relay's reply that carries a search to the arrival of
// the post with its result. Beside it, plocate on the same tree (updatedb once, then one run per query).
// Also: how long after start the tree's names and contents are searchable, and, with --idle, what the
// agent costs with no session once its first crawl is done.
// Usage: bench_search [--files N] [--dir DIR] [--rounds R] [--scope tree|computer] [--idle SECONDS]
//                     [--agent BINARY] [--no-plocate] [--home DIR]
// The searches look below the tree's folder, or with --scope computer through the whole computer (the
// WebApp's search at its top level), whose answer carries the sub-folders of "/" instead of the tree's.
// The tree is made once per size under DIR (default /tmp/vandrel-search-bench) and reused. With --home the
// agent's home (and so its index) is kept there and reused, which spares a first crawl of a large tree.
#include "common/Envelope.h"
#include "common/TestHttpServer.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <random>

namespace {

using Clock = std::chrono::steady_clock;

const char *const kWords[] = {
    "report",  "invoice", "budget", "holiday",  "photo",  "draft",  "final",   "notes",  "summary", "project",
    "meeting", "letter",  "scan",   "contract", "resume", "tax",    "receipt", "plan",   "design",  "backup",
    "music",   "video",   "family", "garden",   "travel", "recipe", "paper",   "thesis", "chapter", "slides",
};
const char *const kAccented[] = {"résumé", "café", "zürich", "crème", "naïve", "façade"};
const char *const kExtensions[] = {".txt", ".jpg", ".png", ".pdf", ".docx", ".md",   ".c",    ".mp3",
                                   ".mp4", ".zip", ".odt", ".csv", ".py",   ".html", ".json", ".jpeg"};
// About one file in a thousand holds this word in its text, and no name does.
constexpr const char *kContentWord = "quillfeather";
constexpr const char *kNearExactName = "zz_needle_budget_2024.txt";

void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

// Folders of about 20 files, at most 10 deep; names from a word, a number and an extension; text files
// hold a line of words. Returns how many files hold the content word.
int makeTree(const QString &tree, long files)
{
    const QString marker = tree + QStringLiteral("/.complete");
    if (QFile::exists(marker)) {
        QFile count(marker);
        return count.open(QIODevice::ReadOnly) ? count.readAll().toInt() : 0;
    }
    QDir(tree).removeRecursively();
    QDir().mkpath(tree);
    std::mt19937_64 rng(7);
    const auto pick = [&](const auto &array) { return array[rng() % std::size(array)]; };
    QStringList folders{tree};
    QString folder = tree;
    int holders = 0;
    for (long i = 0; i < files; ++i) {
        if (i % 20 == 0) {
            const QString parent = folders[qsizetype(rng() % quint64(folders.size()))];
            folder = parent + u'/' + QString::fromUtf8(pick(kWords)) + QString::number(i / 20);
            if (parent.count(u'/') - tree.count(u'/') >= 10)
                folder = tree + u'/' + QString::fromUtf8(pick(kWords)) + QString::number(i / 20);
            QDir().mkpath(folder);
            folders << folder;
        }
        const bool accented = rng() % 50 == 0;
        const QString extension = QString::fromUtf8(pick(kExtensions));
        const QString name = QString::fromUtf8(accented ? pick(kAccented) : pick(kWords)) + u'_' +
                             QString::number(rng() % 100000) + extension;
        QByteArray content;
        if (extension == u".txt" || extension == u".md") {
            for (int w = 0; w < 12; ++w)
                content += QByteArray(pick(kWords)) + ' ';
            if (rng() % 125 == 0) {
                content += kContentWord;
                ++holders;
            }
        }
        writeFile(folder + u'/' + name, content);
    }
    writeFile(tree + u'/' + QLatin1String(kNearExactName), "needle");
    writeFile(marker, QByteArray::number(holders));
    return holders;
}

// The relay: answers each poll with the next queued request and notes when its result arrives.
class Relay
{
public:
    Relay()
        : m_server([this](const TestHttpServer::Request &request) { return answer(request); })
    {}
    QString url() const { return m_server.url(QString()).toString(); }

    std::optional<QString> computerId(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_lock);
        m_changed.wait_for(lock, timeout, [&] { return !m_computerId.isEmpty(); });
        return m_computerId.isEmpty() ? std::nullopt : std::optional(m_computerId);
    }

    struct Answer
    {
        QJsonObject result;
        double millis = -1; // reply sent to result received
    };

    Answer ask(QJsonObject request, std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_lock);
        const QString marker = QString::number(++m_serial);
        request.insert(QStringLiteral("n"), marker);
        m_queued = request;
        m_answer.reset();
        m_marker = marker;
        if (!m_changed.wait_for(lock, timeout, [&] { return m_answer.has_value(); }))
            return {};
        return *m_answer;
    }

private:
    TestHttpServer::Reply answer(const TestHttpServer::Request &request)
    {
        const Clock::time_point now = Clock::now();
        std::lock_guard lock(m_lock);
        if (m_computerId.isEmpty())
            m_computerId = QString::fromUtf8(request.form.value(QStringLiteral("computer_id")));
        if (request.form.contains(QStringLiteral("result"))) {
            const QJsonObject result =
                unpackEnvelope(QString::fromLatin1(request.form.value(QStringLiteral("result")))).object();
            if (result.value(QStringLiteral("n")).toString() == m_marker && m_sentAt) {
                m_answer = Answer{result, std::chrono::duration<double, std::milli>(now - *m_sentAt).count()};
                m_sentAt.reset();
            }
        }
        m_changed.notify_all();
        QJsonArray requests;
        if (m_queued) {
            requests.append(*m_queued);
            m_queued.reset();
            m_sentAt = Clock::now();
        }
        return TestHttpServer::Reply::json(200,
                                           QJsonDocument(QJsonObject{{QStringLiteral("requests"), requests}})
                                               .toJson(QJsonDocument::Compact));
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    QString m_computerId;                      // guarded by m_lock
    std::optional<QJsonObject> m_queued;       // guarded by m_lock
    std::optional<Clock::time_point> m_sentAt; // guarded by m_lock
    std::optional<Answer> m_answer;            // guarded by m_lock
    QString m_marker;                          // guarded by m_lock
    int m_serial = 0;                          // guarded by m_lock
    TestHttpServer m_server;
};

double median(std::vector<double> values)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// CPU seconds and bytes read from disk so far by a process.
std::pair<double, qint64> processCost(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    double cpu = 0;
    if (stat.open(QIODevice::ReadOnly)) {
        const QByteArray text = stat.readAll();
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 12)
            cpu = (fields[11].toDouble() + fields[12].toDouble()) / double(sysconf(_SC_CLK_TCK));
    }
    QFile io(QStringLiteral("/proc/%1/io").arg(pid));
    qint64 readBytes = 0;
    if (io.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : io.readAll().split('\n')) {
            if (line.startsWith("read_bytes:"))
                readBytes = line.mid(11).trimmed().toLongLong();
        }
    }
    return {cpu, readBytes};
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll().trimmed()) : QString();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    long files = 100000;
    QString dir = QStringLiteral("/tmp/vandrel-search-bench");
    int rounds = 5;
    int idleSeconds = 0;
    bool peers = true;
    bool wholeComputer = false;
    QString binary = QStringLiteral(VANDREL_BINARY);
    QString keptHome;
    const QStringList args = app.arguments();
    for (qsizetype i = 1; i < args.size(); ++i) {
        if (args[i] == u"--files" && i + 1 < args.size())
            files = args[++i].toLong();
        else if (args[i] == u"--dir" && i + 1 < args.size())
            dir = args[++i];
        else if (args[i] == u"--rounds" && i + 1 < args.size())
            rounds = std::max(1, args[++i].toInt());
        else if (args[i] == u"--idle" && i + 1 < args.size())
            idleSeconds = std::max(0, args[++i].toInt());
        else if (args[i] == u"--agent" && i + 1 < args.size())
            binary = args[++i];
        else if (args[i] == u"--scope" && i + 1 < args.size())
            wholeComputer = args[++i] == u"computer";
        else if (args[i] == u"--home" && i + 1 < args.size())
            keptHome = args[++i];
        else if (args[i] == u"--no-plocate")
            peers = false;
    }
    QTextStream out(stdout);
    const QString tree = QStringLiteral("%1/tree-%2").arg(dir).arg(files);
    QElapsedTimer making;
    making.start();
    const int holders = makeTree(tree, files);
    out << "tree: " << tree << ", " << files << " files, " << holders << " hold \"" << kContentWord
        << "\" (ready in " << making.elapsed() / 1000.0 << " s); load " << loadAverage() << "\n";
    out.flush();

    QTemporaryDir temporaryHome;
    if (!keptHome.isEmpty())
        QDir().mkpath(keptHome);
    const QDir home(keptHome.isEmpty() ? temporaryHome.path() : keptHome);
    for (const auto &[name, sub] :
         {std::pair{"HOME", ""}, std::pair{"XDG_CONFIG_HOME", "/.config"},
          std::pair{"XDG_CACHE_HOME", "/.cache"}, std::pair{"XDG_DATA_HOME", "/.local/share"}})
        qputenv(name, QFile::encodeName(home.path() + QLatin1String(sub)));
    qputenv("VANDREL_KEYCHAIN", "file");
    Relay relay;
    qputenv("VANDREL_RELAY_URL", relay.url().toUtf8());
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{tree});
    ls_Keychain::setString(QStringLiteral("pw"), vd_FileUtils::keyForComputerPassword());
    const QString data = home.filePath(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata"));
    QDir().mkpath(data + QStringLiteral("/sessions"));
    writeFile(data + QStringLiteral("/sessions_are_here.json"), "{}");
    const QString sessionFile = data + QStringLiteral("/sessions/web.json");
    const auto keepSessionFresh = [&] {
        writeFile(sessionFile, QStringLiteral("{\"date\": %1}")
                                   .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                                   .toUtf8());
    };
    keepSessionFresh();

    QProcess agent;
    agent.setProcessChannelMode(QProcess::MergedChannels);
    agent.setStandardOutputFile(home.filePath(QStringLiteral("agent.log")));
    QElapsedTimer sinceStart;
    sinceStart.start();
    agent.start(binary, {QStringLiteral("--headless")});
    if (!agent.waitForStarted(10000)) {
        out << "cannot start " << binary << "\n";
        return 1;
    }
    out << "agent pid " << agent.processId() << " (" << binary << ")\n";
    out.flush();
    const std::optional<QString> computerId = relay.computerId(std::chrono::seconds(30));
    if (!computerId) {
        out << "the agent never polled\n";
        return 1;
    }
    const QString hash = vd_SimpleUtils::sha256Hex(*computerId + QStringLiteral("___pw"));
    const auto ask = [&](QJsonObject request) {
        keepSessionFresh();
        request.insert(QStringLiteral("request_type"), QStringLiteral("search"));
        request.insert(QStringLiteral("os_session"), QStringLiteral("web"));
        request.insert(QStringLiteral("pword_hash"), hash);
        request.insert(QStringLiteral("search_dir"), wholeComputer ? QString() : tree);
        return relay.ask(request, std::chrono::seconds(60));
    };
    const auto count = [](const Relay::Answer &answer) {
        return answer.result.value(QStringLiteral("total_item_count")).toInt();
    };

    // Searchable: the planted name, then every holder of the content word.
    const QJsonObject nameQuery{{QStringLiteral("name_search"), QLatin1String(kNearExactName)}};
    const QJsonObject wordQuery{{QStringLiteral("search_string"), QLatin1String(kContentWord)}};
    double namesAt = -1, contentAt = -1;
    while (sinceStart.elapsed() < 3600 * 1000 && (namesAt < 0 || contentAt < 0)) {
        if (namesAt < 0 && count(ask(nameQuery)) > 0)
            namesAt = sinceStart.elapsed() / 1000.0;
        if (namesAt >= 0 && count(ask(wordQuery)) >= std::min(holders, 600))
            contentAt = sinceStart.elapsed() / 1000.0;
        if (namesAt < 0 || contentAt < 0)
            QThread::msleep(500);
    }
    out << "names searchable " << namesAt << " s after start, content " << contentAt << " s after start\n";
    out.flush();
    // The figures below are for an agent whose first indexing is over, as `vandrel status` tells.
    QString indexLine;
    while (sinceStart.elapsed() < 3600 * 1000) {
        QProcess status;
        status.start(binary, {QStringLiteral("status")});
        status.waitForFinished(60000);
        const QStringList lines = QString::fromUtf8(status.readAllStandardOutput()).split(u'\n');
        indexLine = lines.filter(QStringLiteral("Index:")).value(0).simplified();
        if (indexLine.startsWith(QStringLiteral("Index: done")))
            break;
        QThread::sleep(2);
    }
    out << "first indexing over " << sinceStart.elapsed() / 1000.0 << " s after start: " << indexLine << "\n";
    out.flush();

    struct QueryClass
    {
        const char *label;
        QJsonObject request;
        QStringList plocate; // arguments after the database; empty when plocate has no counterpart
    };
    const auto name = [](const char *text) {
        return QJsonObject{{QStringLiteral("name_search"), QString::fromUtf8(text)}};
    };
    const QList<QueryClass> classes = {
        {"name, 1 character (e)",
         name("e"),
         {QStringLiteral("-b"), QStringLiteral("-i"), QStringLiteral("e")}},
        {"name, 1 character (r)",
         name("r"),
         {QStringLiteral("-b"), QStringLiteral("-i"), QStringLiteral("r")}},
        {"name, 2 characters (re)",
         name("re"),
         {QStringLiteral("-b"), QStringLiteral("-i"), QStringLiteral("re")}},
        {"name, 3 characters (bud)",
         name("bud"),
         {QStringLiteral("-b"), QStringLiteral("-i"), QStringLiteral("bud")}},
        {"name, 6 characters (budget)",
         name("budget"),
         {QStringLiteral("-b"), QStringLiteral("-i"), QStringLiteral("budget")}},
        {"accented name (zürich)", name("zürich"), {}},
        {"near-exact name",
         name(kNearExactName),
         {QStringLiteral("-b"), QStringLiteral("-i"), QLatin1String(kNearExactName)}},
        {"type only (public.image)", {{QStringLiteral("file_type"), QStringLiteral("public.image")}}, {}},
        {"one content word", wordQuery, {}},
    };

    QString database;
    QTemporaryDir plocateDir;
    if (peers) {
        database = plocateDir.filePath(QStringLiteral("tree.db"));
        QElapsedTimer updating;
        updating.start();
        const int status = QProcess::execute(QStringLiteral("updatedb"),
                                             {QStringLiteral("-l"), QStringLiteral("0"), QStringLiteral("-U"),
                                              tree, QStringLiteral("-o"), database});
        if (status != 0) {
            out << "updatedb failed (scripts/bootstrap --bench installs plocate); plocate left out\n";
            database.clear();
        } else {
            out << "updatedb: " << updating.elapsed() / 1000.0 << " s\n";
        }
    }

    out << "\n| query | Vandrel median (min-max), " << rounds
        << " runs | agent CPU per search | hits | plocate median | plocate hits |\n"
        << "|---|---|---|---|---|---|\n";
    for (const QueryClass &queryClass : classes) {
        std::vector<double> times;
        int hits = 0;
        // Warm: the first search after a pause also refreshes the matched-files cache.
        ask(queryClass.request);
        // The agent's CPU time per search is a figure that a busy machine does not bend.
        const double cpuBefore = processCost(agent.processId()).first;
        for (int i = 0; i < rounds; ++i) {
            const Relay::Answer answer = ask(queryClass.request);
            times.push_back(answer.millis);
            hits = count(answer);
        }
        const double cpuPerSearch = (processCost(agent.processId()).first - cpuBefore) * 1000 / rounds;
        std::sort(times.begin(), times.end());
        QString peer = QStringLiteral("–"), peerHits = QStringLiteral("–");
        if (!database.isEmpty() && !queryClass.plocate.isEmpty()) {
            std::vector<double> peerTimes;
            for (int i = 0; i < rounds; ++i) {
                QProcess plocate;
                QElapsedTimer clock;
                clock.start();
                plocate.start(QStringLiteral("plocate"),
                              QStringList{QStringLiteral("-d"), database} + queryClass.plocate);
                plocate.waitForFinished(60000);
                const QByteArray output = plocate.readAllStandardOutput();
                peerTimes.push_back(double(clock.nsecsElapsed()) / 1e6);
                peerHits = QString::number(output.count('\n'));
            }
            peer = QString::number(median(peerTimes), 'f', 1) + QStringLiteral(" ms");
        }
        out << "| " << queryClass.label << " | " << QString::number(median(times), 'f', 1) << " ms ("
            << QString::number(times.front(), 'f', 1) << "-" << QString::number(times.back(), 'f', 1)
            << ") | " << QString::number(cpuPerSearch, 'f', 1) << " ms | " << hits << " | " << peer << " | "
            << peerHits << " |\n";
        out.flush();
    }
    out << "load after the queries: " << loadAverage() << "\n";

    // A change the user makes now: how soon its name and its content are found.
    const QString fresh = tree + QStringLiteral("/fresh-%1.txt").arg(QDateTime::currentMSecsSinceEpoch());
    QElapsedTimer sinceWrite;
    sinceWrite.start();
    writeFile(fresh, "minutes of the zanzibarine meeting\n");
    const QJsonObject freshName{{QStringLiteral("name_search"), QFileInfo(fresh).fileName()}};
    const QJsonObject freshWord{{QStringLiteral("search_string"), QStringLiteral("zanzibarine")}};
    double freshNameAt = -1, freshContentAt = -1;
    while (sinceWrite.elapsed() < 120000 && (freshNameAt < 0 || freshContentAt < 0)) {
        if (freshNameAt < 0 && count(ask(freshName)) > 0)
            freshNameAt = sinceWrite.elapsed() / 1000.0;
        if (freshContentAt < 0 && count(ask(freshWord)) > 0)
            freshContentAt = sinceWrite.elapsed() / 1000.0;
    }
    QFile::remove(fresh);
    out << "a text file written now: name found after " << freshNameAt << " s, content after "
        << freshContentAt << " s (load " << loadAverage() << ")\n";
    out.flush();

    if (idleSeconds > 0) {
        // No session: the agent only looks for one now and then, and the index only waits for changes.
        QFile::remove(sessionFile);
        QThread::sleep(5);
        const auto [cpuBefore, readBefore] = processCost(agent.processId());
        QThread::sleep(unsigned(idleSeconds));
        const auto [cpuAfter, readAfter] = processCost(agent.processId());
        out << "idle agent over " << idleSeconds
            << " s: " << QString::number((cpuAfter - cpuBefore) * 100.0 / idleSeconds, 'f', 3)
            << " % of one core, " << (readAfter - readBefore) << " bytes read from disk\n";
    }
    agent.terminate();
    agent.waitForFinished(20000);
    return 0;
}
