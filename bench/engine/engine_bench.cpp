// The request engine's own cost, in a temporary home:
//  - an idle tick (two StorageRoots, no session): CPU time per tick;
//  - a reply received to its result posted, for one request of an unknown type, against a minimal relay on
//    127.0.0.1 that answers every post with no requests: wall time from handing the body to the engine
//    until the result's POST has fully arrived at the relay.
//  - the same for a thumbnail and a preview of a 24 MP JPEG, cold (no cached picture) and from the cache.
// Usage: bench_engine [ROUNDS]   (default 200)
#include "LoopbackRelay.h"
#include "app/RequestHandlerRegistry.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_SimpleUtils.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTextStream>

#include <sys/resource.h>

#include <algorithm>
#include <vips/vips8>

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(path.section(u'/', 0, -2));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 200;
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral(".config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral(".local/share"))));
    qputenv("VANDREL_KEYCHAIN", "file");
    QLoggingCategory::setFilterRules(QStringLiteral("vd.*=false"));
    const QString box = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    writeFile(box + QStringLiteral("/data.vdldata/sessions_are_here.json"), "{}");
    QDir().mkpath(home.filePath(QStringLiteral("GDrive/Apps/vandrel")));
    QTextStream out(stdout);

    // Idle ticks: no session anywhere, so nothing is sent.
    vd_Searcher::postResultAndGetMoreRequestsTimer();
    const double idleStart = cpuSeconds();
    QElapsedTimer idleClock;
    idleClock.start();
    const int ticks = rounds * 10;
    for (int i = 0; i < ticks; ++i)
        vd_Searcher::postResultAndGetMoreRequestsTimer();
    out << "idle tick, two StorageRoots: " << (cpuSeconds() - idleStart) / ticks * 1e6 << " us CPU, "
        << double(idleClock.nsecsElapsed()) / ticks / 1000 << " us wall per tick (" << ticks << " ticks)\n";

    LoopbackRelay relay("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                        "Content-Length: 15\r\n\r\n{\"requests\":[]}");
    qputenv("VANDREL_RELAY_URL", QStringLiteral("http://127.0.0.1:%1").arg(relay.port()).toUtf8());
    writeFile(box + QStringLiteral("/data.vdldata/sessions/s1.json"), "{}");
    // With the password's hash, so that the request is answered rather than refused unanswered.
    const QString hash = vd_SimpleUtils::sha256Hex(vd_Searcher::encryptionKey().value());
    const QByteArray body =
        QStringLiteral(R"({"requests":[{"request_type":"unknown","os_session":"s1","pword_hash":"%1"}]})")
            .arg(hash)
            .toUtf8();
    std::vector<double> micros;
    for (int i = 0; i < rounds; ++i) {
        const int before = relay.results();
        QElapsedTimer clock;
        clock.start();
        vd_Searcher::runRequestsFromReply(body);
        while (relay.results() == before && clock.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        micros.push_back(double(clock.nsecsElapsed()) / 1000);
    }
    std::sort(micros.begin(), micros.end());
    out << "reply received to result posted (unknown type): median " << micros[micros.size() / 2]
        << " us, p90 " << micros[micros.size() * 9 / 10] << " us, max " << micros.back() << " us (" << rounds
        << " rounds)\n";
    out.flush();
    vd_Searcher::opQ().waitForDone();

    // Pictures through the same path: the handler's work plus base64 in the record and the post.
    registerRequestHandlers();
    qputenv("XDG_CACHE_HOME", QFile::encodeName(home.filePath(QStringLiteral(".cache"))));
    const QString photo = home.filePath(QStringLiteral("photo24.jpg"));
    VIPS_INIT(argv[0]);
    vips::VImage gradient = (vips::VImage::xyz(6000, 4000) * 255 / 6000).cast(VIPS_FORMAT_UCHAR);
    (gradient.bandjoin(gradient.extract_band(0)) +
     vips::VImage::gaussnoise(6000, 4000).cast(VIPS_FORMAT_UCHAR))
        .copy(vips::VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
        .jpegsave(QFile::encodeName(photo).constData(), vips::VImage::option()->set("Q", 90));
    const auto picture = [&](const char *type, const QString &path, bool cold, int count) {
        const QByteArray request =
            QStringLiteral(
                R"({"requests":[{"request_type":"%1","os_session":"s1","pword_hash":"%2","path":"%3"}]})")
                .arg(QLatin1String(type), hash, path)
                .toUtf8();
        std::vector<double> millis;
        for (int i = 0; i < count; ++i) {
            if (cold)
                QDir(home.filePath(QStringLiteral(".cache/thumbnails"))).removeRecursively();
            const int before = relay.results();
            QElapsedTimer clock;
            clock.start();
            vd_Searcher::runRequestsFromReply(request);
            while (relay.results() == before && clock.elapsed() < 30000)
                QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
            millis.push_back(double(clock.nsecsElapsed()) / 1e6);
        }
        std::sort(millis.begin(), millis.end());
        out << type << (cold ? " (cold)" : " (cached)") << " of the 24 MP JPEG through the relay: median "
            << millis[millis.size() / 2] << " ms, max " << millis.back() << " ms (" << count
            << " requests)\n";
        out.flush();
    };
    picture("thumb", photo + QStringLiteral(".1.256.256.jpg"), true, 5);
    picture("thumb", photo + QStringLiteral(".1.256.256.jpg"), false, 20);
    picture("preview", photo + QStringLiteral(".jpg"), true, 5);
    vd_Searcher::opQ().waitForDone();
    return 0;
}
