// Thumbnail and preview cost beside vipsthumbnail and ImageMagick on the same files.
// Usage: bench_thumbnail [WORKDIR]      (default: a temporary folder; test images are made there)
// Every measured picture is made in a fresh child process, so its peak memory is its own; our time is the
// time of the request inside that process (the agent is long-running), the peers' the whole command's.
#include "handlers/vd_ImageUtils.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThreadPool>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char **environ;

namespace {

using vips::VImage;

struct Cost
{
    double ms = -1;
    long peakKilobytes = -1;
    bool ok = false;
    QByteArray output;
};

// Runs a command and reports its wall time and peak resident memory.
Cost measure(const QStringList &command)
{
    std::vector<QByteArray> bytes;
    for (const QString &part : command)
        bytes.push_back(part.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &part : bytes)
        argv.push_back(part.data());
    argv.push_back(nullptr);
    QElapsedTimer timer;
    timer.start();
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    QByteArray output;
    char buffer[4096];
    for (ssize_t got; spawned == 0 && (got = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;)
        output.append(buffer, got);
    ::close(pipeFds[0]);
    if (spawned != 0)
        return {};
    int status = 0;
    struct rusage usage
    {};
    ::wait4(pid, &status, 0, &usage);
    return {double(timer.nsecsElapsed()) / 1e6, usage.ru_maxrss,
            WIFEXITED(status) && WEXITSTATUS(status) == 0, output};
}

QString gradientImage(const QString &path, int width, int height, const char *options = "")
{
    VImage picture = (VImage::xyz(width, height) * 255 / std::max(width, height)).cast(VIPS_FORMAT_UCHAR);
    picture = picture.bandjoin(picture.extract_band(0))
                  .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB));
    picture = picture + VImage::gaussnoise(width, height).cast(VIPS_FORMAT_UCHAR);
    picture.write_to_file((QFile::encodeName(path) + options).constData());
    return path;
}

// One picture in this process; prints the milliseconds the request itself took.
int runOne(const QStringList &args)
{
    const bool jpeg = args.value(3) == u"JPEG";
    // What a running agent has already loaded: libvips and the MIME database (an icon is the cheapest call).
    vd_ImageUtils::imageDataForPath(QStringLiteral("/"), 16, 16, jpeg, 0.54);
    QElapsedTimer timer;
    timer.start();
    const auto data = vd_ImageUtils::imageDataForPath(args.value(0), args.value(1).toInt(),
                                                      args.value(2).toInt(), jpeg, 0.54);
    QTextStream(stdout) << double(timer.nsecsElapsed()) / 1e6;
    return data ? 0 : 1;
}

void makeImages(const QString &work)
{
    gradientImage(work + QStringLiteral("/photo24.jpg"), 6000, 4000, "[Q=90]");
    gradientImage(work + QStringLiteral("/photo24p.jpg"), 6000, 4000, "[Q=90,interlace]");
    gradientImage(work + QStringLiteral("/image12.png"), 4000, 3000);
    gradientImage(work + QStringLiteral("/pano.jpg"), 12000, 3000, "[Q=90]");
    for (int i = 0; i < 12; ++i)
        gradientImage(work + QStringLiteral("/many%1.jpg").arg(i), 4000, 3000, "[Q=90]");
    // A one-page PDF drawn by hand, and a short video when ffmpeg is there to make one.
    QFile pdf(work + QStringLiteral("/page.pdf"));
    if (pdf.open(QIODevice::WriteOnly)) {
        const QList<QByteArray> objects = {
            "<< /Type /Catalog /Pages 2 0 R >>",
            "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
            "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents 4 0 R >>",
            "<< /Length 44 >>\nstream\n0.2 0.4 0.8 rg 50 50 495 742 re f\nendstream",
        };
        QByteArray bytes = "%PDF-1.4\n";
        QList<qsizetype> offsets;
        for (int i = 0; i < objects.size(); ++i) {
            offsets << bytes.size();
            bytes += QByteArray::number(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
        }
        const qsizetype xref = bytes.size();
        bytes += "xref\n0 5\n0000000000 65535 f \n";
        for (const qsizetype offset : offsets)
            bytes += QByteArray::number(offset).rightJustified(10, '0') + " 00000 n \n";
        bytes += "trailer\n<< /Size 5 /Root 1 0 R >>\nstartxref\n" + QByteArray::number(xref) + "\n%%EOF\n";
        pdf.write(bytes);
    }
    if (!QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty())
        QProcess::execute(QStringLiteral("ffmpeg"),
                          {QStringLiteral("-loglevel"), QStringLiteral("error"), QStringLiteral("-y"),
                           QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                           QStringLiteral("testsrc=duration=5:size=1280x720:rate=25"),
                           work + QStringLiteral("/clip.mp4")});
}

// A cache hit, and four requests at once, in one process.
int runThroughput(const QString &work)
{
    QTextStream out(stdout);
    const QString photo = work + QStringLiteral("/photo24.jpg");
    vd_ImageUtils::imageDataForPath(photo, 128, 128, true, 0.54);
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 20; ++i)
        vd_ImageUtils::imageDataForPath(photo, 128, 128, true, 0.54);
    out << "cache hit, 128 px thumbnail of the 24 MP JPEG: " << double(timer.nsecsElapsed()) / 20e6
        << " ms each\n";
    QThreadPool pool;
    pool.setMaxThreadCount(4);
    timer.restart();
    for (int i = 0; i < 12; ++i)
        pool.start([&work, i] {
            vd_ImageUtils::imageDataForPath(work + QStringLiteral("/many%1.jpg").arg(i), 256, 256, true,
                                            0.54);
        });
    pool.waitForDone();
    out << "4 concurrent requests, twelve 12 MP JPEGs to 256 px: " << 12000.0 / double(timer.elapsed())
        << " images/s\n";
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    if (args.value(0) == u"--one")
        return runOne(args.mid(1));
    if (args.value(0) == u"--make") {
        VIPS_INIT(argv[0]);
        makeImages(args.value(1));
        return 0;
    }
    if (args.value(0) == u"--throughput")
        return runThroughput(args.value(1));

    QTemporaryDir temporary;
    const QString work = args.isEmpty() ? temporary.path() : args.first();
    QDir().mkpath(work);
    // A private cache, so every "cold" run decodes the file and the shared cache of this machine is
    // untouched.
    qputenv("XDG_CACHE_HOME", QFile::encodeName(work + QStringLiteral("/cache")));
    QTextStream out(stdout);
    out << "making test images in " << work << "...\n";
    out.flush();
    const QString self = QCoreApplication::applicationFilePath();
    measure({self, QStringLiteral("--make"), work});
    const QList<std::pair<QString, QString>> files = {
        {QStringLiteral("24 MP JPEG"), work + QStringLiteral("/photo24.jpg")},
        {QStringLiteral("24 MP progressive JPEG"), work + QStringLiteral("/photo24p.jpg")},
        {QStringLiteral("12 MP PNG"), work + QStringLiteral("/image12.png")},
        {QStringLiteral("4:1 panorama JPEG"), work + QStringLiteral("/pano.jpg")},
        {QStringLiteral("A4 PDF page"), work + QStringLiteral("/page.pdf")},
        {QStringLiteral("5 s 720p video"), work + QStringLiteral("/clip.mp4")},
    };
    const bool magick = !QStandardPaths::findExecutable(QStringLiteral("convert")).isEmpty();
    out << QStringLiteral("%1 %2 %3 %4 %5\n")
               .arg(QStringLiteral("file"), -24)
               .arg(QStringLiteral("task"), -16)
               .arg(QStringLiteral("vandrel ms/MB"), -16)
               .arg(QStringLiteral("vipsthumbnail ms/MB"), -22)
               .arg(QStringLiteral("ImageMagick ms/MB"));
    for (const auto &[label, file] : files) {
        for (const auto &[task, width, height] :
             {std::tuple{QStringLiteral("thumb 256"), 256, 256},
              std::tuple{QStringLiteral("preview 768x1024"), 768, 1024}}) {
            QDir(work + QStringLiteral("/cache")).removeRecursively();
            Cost ours = measure({self, QStringLiteral("--one"), file, QString::number(width),
                                 QString::number(height), QStringLiteral("JPEG")});
            ours.ms = ours.output.toDouble();
            const QString size = QStringLiteral("%1x%2").arg(width).arg(height);
            const Cost vips = measure({QStringLiteral("vipsthumbnail"), file, QStringLiteral("--size"), size,
                                       QStringLiteral("-o"), work + QStringLiteral("/vt_%s.jpg[Q=54]")});
            const Cost im = magick ? measure({QStringLiteral("convert"), file, QStringLiteral("-thumbnail"),
                                              size, QStringLiteral("-quality"), QStringLiteral("54"),
                                              work + QStringLiteral("/im.jpg")})
                                   : Cost{};
            const auto cell = [](const Cost &cost) {
                return cost.ok
                           ? QStringLiteral("%1 / %2").arg(cost.ms, 0, 'f', 0).arg(cost.peakKilobytes / 1024)
                           : QStringLiteral("n/a");
            };
            out << QStringLiteral("%1 %2 %3 %4 %5\n")
                       .arg(label, -24)
                       .arg(task, -16)
                       .arg(cell(ours), -16)
                       .arg(cell(vips), -22)
                       .arg(cell(im));
            out.flush();
        }
    }

    QDir(work + QStringLiteral("/cache")).removeRecursively();
    out << measure({self, QStringLiteral("--throughput"), work}).output;
    return 0;
}
