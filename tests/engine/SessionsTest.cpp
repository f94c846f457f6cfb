#include "common/TempHome.h"
#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_FileUtils.h"

#include <QFileInfo>
#include <QThread>

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

QString writeSession(const TempHome &home, const QString &name, const QByteArray &content)
{
    return home.writeFile(u"root/data.vdldata/sessions/"_s + name, content);
}

QByteArray dated(const QDateTime &now, double offsetSeconds)
{
    return u"{\"date\": %1}"_s.arg(vd_FileUtils::JSONDate(now) + offsetSeconds, 0, 'f', 3).toUtf8();
}

} // namespace

TEST(Sessions, ListingExpiryThatSparesWhatALinkPointsAtAndTheUserComingBackOnAnyThread)
{
    TempHome home;
    const QString root = home.filePath(u"root"_s);
    const QString sessions = root + u"/data.vdldata/sessions/"_s;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    EXPECT_EQ(vd_Searcher::get_sessions(root, false), std::nullopt);
    EXPECT_EQ(vd_Searcher::get_sessions(QString(), false), std::nullopt);

    writeSession(home, u"a.json"_s, dated(now, -1999));
    writeSession(home, u"b.JSON"_s, dated(now, 0));
    writeSession(home, u".c.json"_s, dated(now, 0));
    writeSession(home, u"d.json/inner.txt"_s, "inside a folder named like a session");
    writeSession(home, u"e.json"_s, "{not json");
    writeSession(home, u"old.json"_s, dated(now, -2001));
    writeSession(home, u"future.json"_s, dated(now, 2001));
    // A pipe named like a session is listed and expired without waiting for a writer.
    ASSERT_EQ(::mkfifo(QFile::encodeName(sessions + u"pipe.json"_s).constData(), 0600), 0);
    // A link named like a session goes, the folder it points at stays.
    home.writeFile(u"precious/keep.txt"_s, "keep");
    ASSERT_TRUE(QFile::link(home.filePath(u"precious"_s), sessions + u"x.json"_s));

    const QJsonObject listed = *vd_Searcher::get_sessions(root, false);
    EXPECT_EQ(listed.keys(), QStringList({u"a"_s, u"d"_s, u"e"_s, u"future"_s, u"old"_s, u"pipe"_s, u"x"_s}));
    EXPECT_EQ(listed.value(u"a"_s).toObject().value(u"session_file_url"_s).toString(),
              QUrl::fromLocalFile(sessions + u"a.json"_s).toString());
    const QJsonObject read = *vd_Searcher::get_sessions(root, true);
    EXPECT_TRUE(read.value(u"a"_s).toObject().contains(u"date"_s));
    EXPECT_TRUE(read.value(u"e"_s).toObject().isEmpty());
    EXPECT_TRUE(read.value(u"pipe"_s).toObject().isEmpty());

    vd_Searcher::eraseOldOSSessions(root, now);
    // Folders, pipes and links named like sessions are gone with the stale files.
    EXPECT_EQ(vd_Searcher::get_sessions(root, false)->keys(), QStringList({u"a"_s}));
    EXPECT_TRUE(QFileInfo::exists(sessions + u"b.JSON"_s));
    EXPECT_TRUE(QFileInfo::exists(sessions + u".c.json"_s));
    EXPECT_TRUE(QFileInfo::exists(home.filePath(u"precious/keep.txt"_s)));

    // While a session is there the user is active; coming back after twenty quiet seconds is announced.
    int notices = 0;
    const QMetaObject::Connection connection = QObject::connect(
        &UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline,
        &UserActivityNotifier::instance(), [&] { ++notices; }, Qt::DirectConnection);

    vd_Searcher::gLastSessionActive = 0;
    const QDateTime start = QDateTime::currentDateTimeUtc();
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start).has_value());
    EXPECT_EQ(notices, 1);
    EXPECT_FALSE(
        vd_Searcher::isUserActivelyUsingUs(home.filePath(u"other"_s), start.addSecs(30)).has_value());
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start.addSecs(15)).has_value());
    EXPECT_EQ(notices, 1);
    EXPECT_TRUE(vd_Searcher::isUserActivelyUsingUs(root, start.addSecs(40)).has_value());
    EXPECT_EQ(notices, 2);
    // The status word is inverted: "idle" while the user was last seen (at 40 s) within a minute.
    EXPECT_EQ(vd_Searcher::statusString(start.addSecs(100)), u"idle"_s);
    EXPECT_EQ(vd_Searcher::statusString(start.addSecs(101)), u"active"_s);

    // A request's worker thread can be the one that finds the user back; observers hear it there, at once,
    // with no event loop running.
    vd_Searcher::gLastSessionActive = 0;
    std::unique_ptr<QThread> thread(QThread::create([&] { vd_Searcher::isUserActivelyUsingUs(root); }));
    thread->start();
    thread->wait();
    EXPECT_EQ(notices, 3);
    QObject::disconnect(connection);
}
