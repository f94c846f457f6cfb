#include "common/TempHome.h"
#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QThread>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

QString writeSession(const TempHome &home, const QString &name, const QByteArray &content)
{
    return home.writeFile(QStringLiteral("root/data.vdldata/sessions/") + name, content);
}

QByteArray dated(const QDateTime &now, double offsetSeconds)
{
    return QStringLiteral("{\"date\": %1}")
        .arg(vd_FileUtils::JSONDate(now) + offsetSeconds, 0, 'f', 3)
        .toUtf8();
}

} // namespace

TEST(Sessions, ListingCountsJsonNamesOnlyAndExpiryDeletesStaleOnes)
{
    TempHome home;
    const QString root = home.filePath(QStringLiteral("root"));
    const QDateTime now = QDateTime::currentDateTimeUtc();
    EXPECT_EQ(vd_Searcher::get_sessions(root, false), std::nullopt);
    EXPECT_EQ(vd_Searcher::get_sessions(QString(), false), std::nullopt);

    writeSession(home, QStringLiteral("a.json"), dated(now, -1999));
    writeSession(home, QStringLiteral("b.JSON"), dated(now, 0));
    writeSession(home, QStringLiteral(".c.json"), dated(now, 0));
    writeSession(home, QStringLiteral("d.json/inner.txt"), "inside a folder named like a session");
    writeSession(home, QStringLiteral("e.json"), "{not json");
    writeSession(home, QStringLiteral("old.json"), dated(now, -2001));
    writeSession(home, QStringLiteral("future.json"), dated(now, 2001));
    writeSession(home, QStringLiteral("text.json"), "{\"date\": \"soon\"}");
    // A pipe named like a session is listed and expired without waiting for a writer.
    const QString pipe = home.filePath(QStringLiteral("root/data.vdldata/sessions/pipe.json"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);

    const QJsonObject listed = *vd_Searcher::get_sessions(root, false);
    EXPECT_EQ(listed.keys(), QStringList({QStringLiteral("a"), QStringLiteral("d"), QStringLiteral("e"),
                                          QStringLiteral("future"), QStringLiteral("old"),
                                          QStringLiteral("pipe"), QStringLiteral("text")}));
    EXPECT_EQ(
        listed.value(QStringLiteral("a")).toObject().value(QStringLiteral("session_file_url")).toString(),
        QUrl::fromLocalFile(root + QStringLiteral("/data.vdldata/sessions/a.json")).toString());
    const QJsonObject read = *vd_Searcher::get_sessions(root, true);
    EXPECT_TRUE(read.value(QStringLiteral("a")).toObject().contains(QStringLiteral("date")));
    EXPECT_TRUE(read.value(QStringLiteral("e")).toObject().isEmpty());
    EXPECT_TRUE(read.value(QStringLiteral("pipe")).toObject().isEmpty());

    vd_Searcher::eraseOldOSSessions(root, now);
    EXPECT_EQ(vd_Searcher::get_sessions(root, false)->keys(), QStringList({QStringLiteral("a")}));
    EXPECT_FALSE(QFileInfo::exists(root + QStringLiteral("/data.vdldata/sessions/d.json")));
    EXPECT_FALSE(QFileInfo::exists(pipe));
    EXPECT_TRUE(QFileInfo::exists(root + QStringLiteral("/data.vdldata/sessions/b.JSON")));
    EXPECT_TRUE(QFileInfo::exists(root + QStringLiteral("/data.vdldata/sessions/.c.json")));
}

TEST(Sessions, UserCameOnlineAfterTwentyQuietSeconds)
{
    TempHome home;
    const QString root = home.filePath(QStringLiteral("root"));
    const QString other = home.filePath(QStringLiteral("other"));
    writeSession(home, QStringLiteral("s.json"), "{}");
    int notices = 0;
    const QMetaObject::Connection connection = QObject::connect(
        &UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline, [&] { ++notices; });

    vd_Searcher::gLastSessionActive = 0;
    const QDateTime start = QDateTime::currentDateTimeUtc();
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start).has_value());
    EXPECT_EQ(notices, 1);
    EXPECT_FALSE(vd_Searcher::isUserActivelyUsingUs(other, start.addSecs(30)).has_value());
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start.addSecs(15)).has_value());
    EXPECT_EQ(notices, 1);
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start.addSecs(40)).has_value());
    EXPECT_EQ(notices, 2);
    EXPECT_DOUBLE_EQ(vd_Searcher::gLastSessionActive.load(),
                     vd_Searcher::referenceSeconds(start.addSecs(40)));
    QObject::disconnect(connection);
}

TEST(Sessions, ExpiryRemovesALinkNotWhatItPointsAtAndNoticesComeOnThePostingThread)
{
    TempHome home;
    const QString root = home.filePath(QStringLiteral("root"));
    home.writeFile(QStringLiteral("precious/keep.txt"), "keep");
    const QString link = writeSession(home, QStringLiteral("placeholder"), "");
    QFile::remove(link);
    ASSERT_TRUE(QFile::link(home.filePath(QStringLiteral("precious")),
                            home.filePath(QStringLiteral("root/data.vdldata/sessions/x.json"))));
    EXPECT_EQ(vd_Searcher::get_sessions(root, false).value_or(QJsonObject()).keys(), QStringList{"x"});
    vd_Searcher::eraseOldOSSessions(root, QDateTime::currentDateTimeUtc());
    EXPECT_EQ(vd_Searcher::get_sessions(root, false), std::nullopt);
    EXPECT_TRUE(QFileInfo::exists(home.filePath(QStringLiteral("precious/keep.txt"))));

    // A request's worker thread can be the one that finds the user back; observers hear it there.
    writeSession(home, QStringLiteral("s.json"), "{}");
    vd_Searcher::gLastSessionActive = 0;
    Qt::HANDLE heardOn = nullptr;
    const QMetaObject::Connection connection = QObject::connect(
        &UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline,
        &UserActivityNotifier::instance(), [&] { heardOn = QThread::currentThreadId(); },
        Qt::DirectConnection);
    Qt::HANDLE worker = nullptr;
    std::unique_ptr<QThread> thread(QThread::create([&] {
        worker = QThread::currentThreadId();
        vd_Searcher::isUserActivelyUsingUs(root);
    }));
    thread->start();
    thread->wait();
    EXPECT_NE(worker, nullptr);
    EXPECT_EQ(heardOn, worker);
    QObject::disconnect(connection);
}
