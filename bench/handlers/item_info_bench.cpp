// How long an "info" request takes on a large tree, beside `du` on the same tree.
// Usage: bench_item_info [FOLDER]   (default: /, the whole computer, far too large for the 2 s limit)
#include "handlers/ItemInfoHandler.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QTextStream>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("/");
    QTextStream out(stdout);

    for (int run = 1; run <= 3; ++run) {
        QElapsedTimer timer;
        timer.start();
        const QJsonArray lines = ItemInfoHandler::infos(folder);
        const qint64 ms = timer.elapsed();
        out << "vandrel info run " << run << ": " << ms << " ms;";
        for (const QJsonValue &line : lines)
            out << "  " << line[QStringLiteral("name")].toString() << ": "
                << line[QStringLiteral("value")].toString();
        out << "\n";
        out.flush();
    }

    QElapsedTimer timer;
    timer.start();
    QProcess du;
    du.start(QStringLiteral("timeout"),
             {QStringLiteral("60"), QStringLiteral("du"), QStringLiteral("-sxb"), folder});
    du.waitForFinished(70000);
    out << "du -sxb (no time limit, one file system): " << timer.elapsed() << " ms; "
        << QString::fromLocal8Bit(du.readAllStandardOutput()).section(u'\t', 0, 0) << " bytes\n";
    return 0;
}
