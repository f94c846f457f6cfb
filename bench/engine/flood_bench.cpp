// What a relay that does not know the password can cost the agent: the real `vandrel --headless` in a
// temporary home polls a loopback relay that answers every post with 1000 searches carrying a wrong
// password hash. Prints the agent's peak resident memory, its CPU seconds and the posts it made over a fixed
// time.
// Usage: bench_flood [SECONDS] [VANDREL_BINARY]   (default 20 s and the binary of this build)
#include "LoopbackRelay.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

namespace {

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(path.section(u'/', 0, -2));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

QByteArray floodReply()
{
    QByteArray requests;
    for (int i = 0; i < 1000; ++i) {
        if (i > 0)
            requests += ',';
        requests += R"({"request_type":"search","os_session":"web","search_dir":"/","pword_hash":")" +
                    QByteArray(64, '0') + R"(","n":")" + QByteArray::number(i) + "\"}";
    }
    const QByteArray body = "{\"requests\":[" + requests + "]}";
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

// A /proc/<pid>/status figure in kB.
qint64 statusKb(qint64 pid, const QByteArray &field)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

double cpuSeconds(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray stat = file.readAll();
    // Fields after the command name, which may hold spaces: utime and stime are the 12th and 13th.
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) /
           double(sysconf(_SC_CLK_TCK));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
    const QString binary = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral(VANDREL_BINARY);
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral(".config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral(".local/share"))));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(home.filePath(QStringLiteral(".cache"))));
    qputenv("VANDREL_KEYCHAIN", "file");
    LoopbackRelay relay(floodReply());
    qputenv("VANDREL_RELAY_URL", QStringLiteral("http://127.0.0.1:%1").arg(relay.port()).toUtf8());
    const QString box = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    writeFile(box + QStringLiteral("/data.vdldata/sessions_are_here.json"), "{}");
    writeFile(box + QStringLiteral("/data.vdldata/sessions/web.json"),
              QStringLiteral("{\"date\": %1}")
                  .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                  .toUtf8());
    ls_Keychain::setString(QStringLiteral("the right one"), vd_FileUtils::keyForComputerPassword());
    // Only the home folder is indexed, so that indexing the machine does not count as flood cost.
    writeFile(home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")),
              "[General]\nIndexedRoots=" + QFile::encodeName(home.path()) + "\n");

    QProcess agent;
    agent.setStandardOutputFile(QProcess::nullDevice());
    agent.setStandardErrorFile(QProcess::nullDevice());
    agent.start(binary, {QStringLiteral("--headless")});
    if (!agent.waitForStarted(10000)) {
        QTextStream(stderr) << "cannot start " << binary << "\n";
        return 1;
    }
    const qint64 pid = agent.processId();
    qint64 peakKb = 0;
    for (int tenth = 0; tenth < seconds * 10 && agent.state() == QProcess::Running; ++tenth) {
        QThread::msleep(100);
        peakKb = std::max(peakKb, statusKb(pid, "VmHWM"));
    }
    const double cpu = cpuSeconds(pid);
    const bool alive = agent.state() == QProcess::Running;
    agent.kill();
    agent.waitForFinished(10000);
    QTextStream(stdout) << "wrong-hash flood, 1000 searches per reply, " << seconds << " s: peak RSS "
                        << peakKb / 1024 << " MB, CPU " << QString::number(cpu, 'f', 1) << " s ("
                        << QString::number(100 * cpu / seconds, 'f', 0) << " % of a core), posts "
                        << relay.posts() << " (" << relay.results() << " with a result), agent "
                        << (alive ? "alive" : "DIED") << "\n";
    return 0;
}
