#include "utils/ComputerInfoFile.h"

#include "common/TempHome.h"
#include "platform/SettingsKeys.h"
#include "platform/SystemIdentity.h"
#include "platform/UserDefaults.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>

namespace {

// ctest runs each case in its own process, and the secret store is chosen once per process.
struct Home : TempHome
{
    Home() { qputenv("VANDREL_KEYCHAIN", "file"); }

    QString root(const QString &dropbox) const
    {
        writeFile(dropbox + QStringLiteral("/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
        return filePath(dropbox + QStringLiteral("/Apps/vandrel"));
    }
    // A JSON file below the home; `mtimeAge` seconds old on disk when given.
    QString json(const QString &relative, const QJsonObject &record, qint64 mtimeAge = 0) const
    {
        const QString path = writeFile(relative, QJsonDocument(record).toJson());
        if (mtimeAge) {
            QFile file(path);
            file.open(QIODevice::ReadWrite);
            file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(-mtimeAge),
                             QFileDevice::FileModificationTime);
        }
        return path;
    }
    QString trashed(const QString &name) const
    {
        return filePath(QStringLiteral(".local/share/Trash/files/")) + name;
    }
    bool inTrashWithRecord(const QString &name) const
    {
        return QFileInfo::exists(trashed(name)) &&
               QFileInfo(filePath(QStringLiteral(".local/share/Trash/info/")) + name +
                         QStringLiteral(".trashinfo"))
                       .size() > 0;
    }
};

QJsonObject dated(const QString &name, double date)
{
    return {{QStringLiteral("computer_name"), name}, {QStringLiteral("last_updated"), date}};
}

QJsonObject recordAt(const QString &path)
{
    return vd_FileUtils::readJsonFileMutableDictionary(path);
}

} // namespace

TEST(ComputerIdentity, ManyThreadsOnAFreshDefaultsFileGetOneId)
{
    // A few rounds, each on a fresh defaults file: a lost race shows in most of them.
    for (int round = 0; round < 4; ++round) {
        Home home;
        ASSERT_FALSE(QFileInfo::exists(UserDefaults::filePath()));
        constexpr int kThreads = 16;
        std::latch ready(kThreads);
        std::vector<QString> ids(kThreads);
        std::vector<std::unique_ptr<QThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back(QThread::create([&, i] {
                ready.arrive_and_wait();
                ids[i] = vd_FileUtils::getComputerUUID();
            }));
            threads.back()->start();
        }
        for (const auto &thread : threads)
            thread->wait();

        const QString id = ids.front();
        EXPECT_TRUE(QRegularExpression(QStringLiteral("^[A-Za-z0-9_-]{32}$")).match(id).hasMatch());
        EXPECT_EQ(std::count(ids.begin(), ids.end(), id), kThreads) << "round " << round;
        EXPECT_EQ(vd_FileUtils::getComputerUUID(), id);
        EXPECT_EQ(UserDefaults::stringValue(vd_FileUtils::prefsKeyForComputerID()), id);
    }

    const QString platformId = SystemIdentity::machineId().value_or(vd_SimpleUtils::computerName());
    EXPECT_EQ(vd_FileUtils::getPlatformUUID(), platformId);
    EXPECT_EQ(vd_FileUtils::prefsKeyForComputerID(), QStringLiteral("ComputerUUID_") + platformId);
    EXPECT_EQ(vd_FileUtils::keyForComputerPassword(), QStringLiteral("computer_password_") + platformId);
    EXPECT_NE(vd_FileUtils::randomURLSafeString(), vd_FileUtils::randomURLSafeString());
}

TEST(ComputerInfoFile, WritingClearsSyncLeftoversIntoTheTrashAndWritesTheRecord)
{
    Home home;
    home.writeFile(QStringLiteral("Dropbox/.keep"), "");
    const QString root = home.root(QStringLiteral("Dropbox"));
    const QString computers = QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/computers/");
    const QString data = QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/");
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const double t = vd_FileUtils::JSONDate(now);
    const QString own = vd_FileUtils::getComputerUUID() + QStringLiteral(".json");
    const QString conflicted =
        vd_FileUtils::getComputerUUID() + QStringLiteral(" (Zoe's conflicted copy 2024).json");
    ASSERT_GE(conflicted.size(), 61);

    // Kept: a file of another computer 199999 seconds old, the newest of two files with one name, files
    // with equal dates, files that are no JSON object.
    home.json(computers + QStringLiteral("desk.json"), dated(QStringLiteral("Desk"), t - 199999));
    home.json(computers + QStringLiteral("laptop-new.json"), dated(QStringLiteral("Laptop"), t - 10));
    home.json(computers + QStringLiteral("twin-a.json"), dated(QStringLiteral("Twin"), t - 20));
    home.json(computers + QStringLiteral("twin-b.json"), dated(QStringLiteral("Twin"), t - 20));
    home.writeFile(computers + QStringLiteral("garbage.json"), "{\"computer_name\": ");
    home.writeFile(computers + QStringLiteral("list.json"), "[{\"last_updated\": 0}]");
    home.writeFile(data + QStringLiteral("sessions_are_here.json"), "{\"date\": 1}");
    home.writeFile(data + QStringLiteral("elsewhere.json"), "{}");

    // Trashed: this computer's stale file (then written anew), its conflicted copy, files 200001 seconds
    // old or ahead, files dated by their modification time, the older of two files with one name, copies
    // of the WebApp's marker.
    home.json(computers + own, dated(QStringLiteral("Old name"), t - 300000));
    home.json(computers + conflicted, dated(QStringLiteral("Copy"), t));
    home.writeFile(computers + QString(61, u'x') + QStringLiteral("/inside"), "a folder counts too");
    home.json(computers + QStringLiteral("gone.json"), dated(QStringLiteral("Gone"), t - 200001));
    home.json(computers + QStringLiteral("clock.json"), dated(QStringLiteral("Clock"), t + 200001));
    home.json(computers + QStringLiteral("untouched.json"),
              {{QStringLiteral("computer_name"), QStringLiteral("Shelf")}}, 300000);
    home.json(computers + QStringLiteral("laptop-old.json"),
              {{QStringLiteral("computer_name"), QStringLiteral("Laptop")}}, 50);
    home.writeFile(data + QStringLiteral("sessions_are_here (1).json"), "{}");
    home.writeFile(data + QStringLiteral("sessions_are_here_conflict"), "{}");

    ComputerInfoFile::writeComputerInfoFileTo(root, false, now);

    QStringList kept{QStringLiteral("desk.json"),
                     QStringLiteral("garbage.json"),
                     QStringLiteral("laptop-new.json"),
                     QStringLiteral("list.json"),
                     QStringLiteral("twin-a.json"),
                     QStringLiteral("twin-b.json"),
                     own};
    kept.sort();
    EXPECT_EQ(QDir(home.filePath(computers)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name),
              kept);
    for (const QString &name :
         {own, conflicted, QString(61, u'x'), QStringLiteral("gone.json"), QStringLiteral("clock.json"),
          QStringLiteral("untouched.json"), QStringLiteral("laptop-old.json"),
          QStringLiteral("sessions_are_here (1).json"), QStringLiteral("sessions_are_here_conflict")})
        EXPECT_TRUE(home.inTrashWithRecord(name)) << name.toStdString();
    EXPECT_EQ(recordAt(home.trashed(own)).value(QStringLiteral("computer_name")), QStringLiteral("Old name"));
    EXPECT_TRUE(QFileInfo::exists(home.filePath(data + QStringLiteral("sessions_are_here.json"))));
    EXPECT_TRUE(QFileInfo::exists(home.filePath(data + QStringLiteral("elsewhere.json"))));

    const QJsonObject record = recordAt(home.filePath(computers + own));
    const QString uploads =
        root +
        QStringLiteral("/uploads/%1/%2").arg(QDate::currentDate().year()).arg(QDate::currentDate().month());
    EXPECT_EQ(record, QJsonObject({{QStringLiteral("computer_id"), vd_FileUtils::getComputerUUID()},
                                   {QStringLiteral("computer_name"), vd_SimpleUtils::computerName()},
                                   {QStringLiteral("last_updated"), t},
                                   {QStringLiteral("dropbox_path"), home.filePath(QStringLiteral("Dropbox"))},
                                   {QStringLiteral("uploads_folder"), uploads},
                                   {QStringLiteral("app_version"), vd_FileUtils::getAppVersionString()},
                                   {QStringLiteral("platform"), QStringLiteral("osx")}}));
    EXPECT_TRUE(QFileInfo(uploads).isDir());
}

TEST(ComputerInfoFile, EnsureOnlyFillsGapsAndUpdateFollowsThePassword)
{
    Home home;
    const QString personal = home.root(QStringLiteral("Dropbox"));
    const QString business = home.root(QStringLiteral("Dropbox (Business)"));
    home.writeFile(QStringLiteral(".dropbox/info.json"),
                   ("{\"p\": {\"path\": \"" + home.filePath(QStringLiteral("Dropbox")) +
                    "\"}, \"b\": {\"path\": \"" + home.filePath(QStringLiteral("Dropbox (Business)")) +
                    "\"}}")
                       .toUtf8());
    const QString ownFirst = ComputerInfoFile::computerInfoFilePath(personal);
    const QString ownSecond = ComputerInfoFile::computerInfoFilePath(business);

    ComputerInfoFile::ensureComputerInfo();
    ASSERT_TRUE(QFileInfo::exists(ownFirst) && QFileInfo::exists(ownSecond));
    EXPECT_FALSE(recordAt(ownFirst).contains(QStringLiteral("pword_required")));
    // "~/Dropbox" is a text prefix of "~/Dropbox (Business)/…" and comes first.
    EXPECT_EQ(recordAt(ownSecond).value(QStringLiteral("dropbox_path")),
              home.filePath(QStringLiteral("Dropbox")));

    // With the file present, ensuring changes nothing, not even the clean-up.
    const QString stale = home.json(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/computers/stale.json"),
                                    dated(QStringLiteral("Gone"), 1000));
    const QByteArray before = QJsonDocument(recordAt(ownFirst)).toJson();
    ComputerInfoFile::ensureComputerInfo();
    EXPECT_TRUE(QFileInfo::exists(stale));
    EXPECT_EQ(QJsonDocument(recordAt(ownFirst)).toJson(), before);

    UserDefaults::setValue(SettingsKeys::LastBestPath, home.path());
    ls_Keychain::setString(QStringLiteral("secret"), vd_FileUtils::keyForComputerPassword());
    ComputerInfoFile::updateComputerInfo();
    EXPECT_FALSE(UserDefaults::contains(SettingsKeys::LastBestPath));
    EXPECT_FALSE(QFileInfo::exists(stale));
    EXPECT_EQ(recordAt(ownFirst).value(QStringLiteral("pword_required")), QJsonValue(true));
    EXPECT_EQ(recordAt(ownSecond).value(QStringLiteral("pword_required")), QJsonValue(true));

    ls_Keychain::setString(QStringLiteral(""), vd_FileUtils::keyForComputerPassword());
    ComputerInfoFile::updateComputerInfo();
    EXPECT_FALSE(recordAt(ownFirst).contains(QStringLiteral("pword_required")));
    EXPECT_FALSE(recordAt(ownSecond).contains(QStringLiteral("pword_required")));
}
