#include "common/TempHome.h"
#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QUrl>

#include <gtest/gtest.h>

namespace {

QByteArray dated(const QDateTime &date)
{
    return "{\"date\": " + QByteArray::number(double(date.toMSecsSinceEpoch()) / 1000.0, 'f', 3) + "}";
}

QStringList idsOf(const std::optional<QJsonObject> &sessions)
{
    return sessions ? sessions->keys() : QStringList();
}

} // namespace

TEST(Sessions, ListingCountsNamesAndExpiryDeletesStaleEntriesOnly)
{
    TempHome home;
    const QString root = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    const QString sessionsIn = QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/");
    const QString sessions = home.filePath(sessionsIn);
    const QDateTime now = QDateTime::currentDateTimeUtc();
    EXPECT_EQ(vd_Searcher::get_sessions(root, false), std::nullopt);
    EXPECT_EQ(vd_Searcher::get_sessions(QString(), false), std::nullopt);

    home.writeFile(sessionsIn + QStringLiteral("a.json"), dated(now));
    home.writeFile(sessionsIn + QStringLiteral("b.JSON"), dated(now));
    home.writeFile(sessionsIn + QStringLiteral(".c.json"), "{}");
    home.writeFile(sessionsIn + QStringLiteral("d.json/inside.txt"), "kept until expiry");
    home.writeFile(sessionsIn + QStringLiteral("sub/x.json"), dated(now));
    home.writeFile(sessionsIn + QStringLiteral("broken.json"), "{\"date\": ");
    home.writeFile(sessionsIn + QStringLiteral("young.json"), dated(now.addSecs(-1999)));
    home.writeFile(sessionsIn + QStringLiteral("old.json"), dated(now.addSecs(-2001)));
    home.writeFile(sessionsIn + QStringLiteral("future.json"), dated(now.addSecs(2001)));
    home.writeFile(sessionsIn + QStringLiteral("huge.json"), QByteArray(2 * 1024 * 1024, ' ') + dated(now));
    // A hostile entry: a link to a folder of the user's, which expiry must not empty.
    home.writeFile(QStringLiteral("precious/keep.txt"), "keep");
    ASSERT_TRUE(
        QFile::link(home.filePath(QStringLiteral("precious")), sessions + QStringLiteral("link.json")));

    const QStringList all{QStringLiteral("a"),      QStringLiteral("broken"), QStringLiteral("d"),
                          QStringLiteral("future"), QStringLiteral("huge"),   QStringLiteral("link"),
                          QStringLiteral("old"),    QStringLiteral("young")};
    const std::optional<QJsonObject> listed = vd_Searcher::get_sessions(root, false);
    EXPECT_EQ(idsOf(listed), all);
    EXPECT_EQ(
        listed->value(QStringLiteral("a")).toObject().value(QStringLiteral("session_file_url")).toString(),
        QUrl::fromLocalFile(sessions + QStringLiteral("a.json")).toString());
    const std::optional<QJsonObject> read = vd_Searcher::get_sessions(root, true);
    EXPECT_EQ(idsOf(read), all);
    EXPECT_TRUE(read->value(QStringLiteral("broken")).toObject().isEmpty());
    EXPECT_TRUE(read->value(QStringLiteral("a")).toObject().contains(QStringLiteral("date")));

    vd_Searcher::eraseOldOSSessions(root, now);
    EXPECT_EQ(idsOf(vd_Searcher::get_sessions(root, false)), QStringList({"a", "young"}));
    EXPECT_TRUE(QFileInfo::exists(sessions + QStringLiteral("b.JSON")));
    EXPECT_TRUE(QFileInfo::exists(sessions + QStringLiteral(".c.json")));
    EXPECT_TRUE(QFileInfo::exists(sessions + QStringLiteral("sub/x.json")));
    EXPECT_TRUE(QFileInfo::exists(home.filePath(QStringLiteral("precious/keep.txt"))));
}

TEST(Sessions, UserCameOnlineAfterTwentySecondsWithoutSessionsOnThePostingThread)
{
    TempHome home;
    const QString active = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    const QString idle = home.filePath(QStringLiteral("GDrive/Apps/vandrel"));
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/s1.json"), "{}");
    vd_Searcher::gLastSessionActive = 0;

    QList<Qt::HANDLE> notices;
    const QMetaObject::Connection connection = QObject::connect(
        UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline,
        UserActivityNotifier::instance(), [&notices] { notices.append(QThread::currentThreadId()); },
        Qt::DirectConnection);
    const QDateTime start = QDateTime::currentDateTimeUtc();

    // At start-up the clock is 0, so the first session found is announced.
    EXPECT_EQ(idsOf(vd_Searcher::isUserActivelyUsingUs(active, start)), QStringList{"s1"});
    EXPECT_EQ(notices.size(), 1);
    EXPECT_EQ(idsOf(vd_Searcher::isUserActivelyUsingUs(active, start.addSecs(15))), QStringList{"s1"});
    // A folder without sessions leaves the clock alone.
    EXPECT_EQ(vd_Searcher::isUserActivelyUsingUs(idle, start.addSecs(60)), std::nullopt);
    EXPECT_EQ(notices.size(), 1);

    // 25 seconds after the last active poll, from a worker thread: announced there.
    Qt::HANDLE worker = nullptr;
    std::unique_ptr<QThread> thread(QThread::create([&] {
        worker = QThread::currentThreadId();
        vd_Searcher::isUserActivelyUsingUs(active, start.addSecs(40));
    }));
    thread->start();
    thread->wait();
    ASSERT_EQ(notices.size(), 2);
    EXPECT_EQ(notices.last(), worker);
    EXPECT_NE(worker, QThread::currentThreadId());
    QObject::disconnect(connection);
}
