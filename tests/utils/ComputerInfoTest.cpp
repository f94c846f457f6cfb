#include "common/TempHome.h"
#include "platform/FileSecretStore.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QThread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

struct InfoHome
{
    InfoHome()
    {
        qputenv("VANDREL_KEYCHAIN", "file");
        home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
    }
    QString root() const { return home.filePath(QStringLiteral("Dropbox/Apps/vandrel")); }
    QString computers() const { return root() + QStringLiteral("/data.vdldata/computers"); }
    QString computerFile(const QString &name, const QJsonObject &object) const
    {
        const QString path = computers() + u'/' + name;
        QDir().mkpath(computers());
        vd_FileUtils::writeJsonFile(object, path);
        return path;
    }
    QStringList trashed() const
    {
        return QDir(home.filePath(QStringLiteral(".local/share/Trash/files")))
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name);
    }
    TempHome home;
};

QJsonObject machine(const QString &name, double lastUpdated)
{
    return {{QStringLiteral("computer_name"), name}, {QStringLiteral("last_updated"), lastUpdated}};
}

} // namespace

TEST(ComputerInfo, CleanUpTrashesConflictsOldFilesDuplicatesAndMarkerCopies)
{
    InfoHome info;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const double t = vd_FileUtils::JSONDate(now);
    const QString own = vd_FileUtils::getComputerUUID() + QStringLiteral(".json");
    info.computerFile(own, machine(QStringLiteral("ours"), t - 50));
    // Names of 61 characters or more are the cloud client's conflicted copies; 60 is an ordinary name.
    info.computerFile(QString(56, u'c') + QStringLiteral(".json"), machine(QStringLiteral("conflict"), t));
    info.computerFile(QString(55, u'k') + QStringLiteral(".json"), machine(QStringLiteral("kept"), t));
    info.computerFile(QStringLiteral("recent.json"), machine(QStringLiteral("recent"), t - 199999));
    info.computerFile(QStringLiteral("old.json"), machine(QStringLiteral("old"), t - 200001));
    info.computerFile(QStringLiteral("future.json"), machine(QStringLiteral("future"), t + 200001));
    info.computerFile(QStringLiteral("dupOlder.json"), machine(QStringLiteral("twin"), t - 100));
    info.computerFile(QStringLiteral("dupNewer.json"), machine(QStringLiteral("twin"), t - 10));
    info.computerFile(QStringLiteral("tieA.json"), machine(QStringLiteral("tie"), t - 5));
    info.computerFile(QStringLiteral("tieB.json"), machine(QStringLiteral("tie"), t - 5));
    // Files without a name are nobody's duplicates.
    info.computerFile(QStringLiteral("namelessA.json"), {{QStringLiteral("last_updated"), t - 20}});
    info.computerFile(QStringLiteral("namelessB.json"), {{QStringLiteral("last_updated"), t - 30}});
    // Without "last_updated" the modification time dates the file: this one was touched long ago.
    const QString undated = info.computerFile(QStringLiteral("undated.json"),
                                              {{QStringLiteral("computer_name"), QStringLiteral("u")}});
    const struct timespec longAgo[2] = {{0, UTIME_OMIT}, {qint64(t) - 300000, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(undated).constData(), longAgo, 0);
    info.home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/computers/junk.json"),
                        "[not an object");
    info.home.writeFile(
        QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here (conflicted copy).json"), "{}");

    vd_FileUtils::writeComputerInfoFileTo(info.root(), false, now);

    QStringList expected{own,
                         QString(55, u'k') + QStringLiteral(".json"),
                         QStringLiteral("dupNewer.json"),
                         QStringLiteral("junk.json"),
                         QStringLiteral("namelessA.json"),
                         QStringLiteral("namelessB.json"),
                         QStringLiteral("recent.json"),
                         QStringLiteral("tieA.json"),
                         QStringLiteral("tieB.json")};
    expected.sort(); // the computer id is random, so its place in the listing is too
    QStringList remaining = QDir(info.computers()).entryList(QDir::Files);
    remaining.sort();
    EXPECT_EQ(remaining, expected);
    // Nothing was deleted: every removed item is in the trash with its restore record.
    const QStringList trashed = info.trashed();
    EXPECT_EQ(trashed.size(), 6) << trashed.join(u',').toStdString();
    for (const QString &name : trashed)
        EXPECT_GT(QFileInfo(info.home.filePath(QStringLiteral(".local/share/Trash/info/") + name +
                                               QStringLiteral(".trashinfo")))
                      .size(),
                  0);
    EXPECT_TRUE(QFileInfo::exists(info.root() + QStringLiteral("/data.vdldata/sessions_are_here.json")));

    const QJsonObject written = vd_FileUtils::readJsonFileMutableDictionary(info.computers() + u'/' + own);
    EXPECT_EQ(written.value(QStringLiteral("platform")).toString(), QStringLiteral("osx"));
    EXPECT_EQ(written.value(QStringLiteral("computer_id")).toString() + QStringLiteral(".json"), own);
    EXPECT_EQ(written.value(QStringLiteral("dropbox_path")).toString(),
              info.home.filePath(QStringLiteral("Dropbox")));
    EXPECT_TRUE(QFileInfo(written.value(QStringLiteral("uploads_folder")).toString()).isDir());
    EXPECT_DOUBLE_EQ(written.value(QStringLiteral("last_updated")).toDouble(), t);
    EXPECT_FALSE(written.contains(QStringLiteral("pword_required")));
}

TEST(ComputerInfo, PasswordFlagAndCheckOnlyWrites)
{
    InfoHome info;
    const QString own = info.computers() + u'/' + vd_FileUtils::getComputerUUID() + QStringLiteral(".json");
    vd_FileUtils::ensureComputerInfo();
    ASSERT_TRUE(QFileInfo::exists(own));
    // No root: no data folder at the top of the file system.
    vd_FileUtils::writeComputerInfoFileTo(QString(), false);
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/data.vdldata")));

    // With the file present a check changes nothing, not even the clean-up.
    const QString conflict =
        info.computerFile(QString(60, u'x') + QStringLiteral(".j"), machine(QStringLiteral("c"), 0));
    ls_Keychain::setString(QStringLiteral("secret"), vd_FileUtils::keyForComputerPassword());
    vd_FileUtils::ensureComputerInfo();
    EXPECT_TRUE(QFileInfo::exists(conflict));
    EXPECT_FALSE(vd_FileUtils::readJsonFileMutableDictionary(own).contains(QStringLiteral("pword_required")));

    vd_FileUtils::updateComputerInfo();
    EXPECT_FALSE(QFileInfo::exists(conflict));
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(own).value(QStringLiteral("pword_required")),
              QJsonValue(true));

    // A password store that cannot be read changes nothing about the flag, either way.
    const QByteArray keychain = QFile::encodeName(FileSecretStore::defaultPath());
    ::chmod(keychain.constData(), 0644);
    vd_FileUtils::updateComputerInfo();
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(own).value(QStringLiteral("pword_required")),
              QJsonValue(true));
    ::chmod(keychain.constData(), 0600);

    ls_Keychain::setString(QStringLiteral(""), vd_FileUtils::keyForComputerPassword());
    vd_FileUtils::updateComputerInfo();
    EXPECT_FALSE(vd_FileUtils::readJsonFileMutableDictionary(own).contains(QStringLiteral("pword_required")));
    ::chmod(keychain.constData(), 0644);
    vd_FileUtils::updateComputerInfo();
    EXPECT_FALSE(vd_FileUtils::readJsonFileMutableDictionary(own).contains(QStringLiteral("pword_required")));
}

TEST(ComputerInfo, OneComputerIdForManyThreadsAndVersionRule)
{
    TempHome home;
    QList<QString> ids(16);
    std::vector<std::unique_ptr<QThread>> threads;
    for (int i = 0; i < ids.size(); ++i)
        threads.emplace_back(QThread::create([&ids, i] { ids[i] = vd_FileUtils::getComputerUUID(); }));
    for (auto &thread : threads)
        thread->start();
    for (auto &thread : threads)
        thread->wait();
    EXPECT_EQ(QSet<QString>(ids.begin(), ids.end()).size(), 1);
    EXPECT_EQ(ids.first().size(), 32);
    EXPECT_FALSE(ids.first().contains(u'+') || ids.first().contains(u'/') || ids.first().contains(u'='));
    EXPECT_EQ(vd_FileUtils::getComputerUUID(), ids.first());
    EXPECT_TRUE(vd_FileUtils::prefsKeyForComputerID().startsWith(QStringLiteral("ComputerUUID_")));

    EXPECT_EQ(vd_FileUtils::appVersionString(QStringLiteral("1.4.2"), QStringLiteral("142")),
              QStringLiteral("1.4.2"));
    EXPECT_EQ(vd_FileUtils::appVersionString(QString(21, u'9'), QStringLiteral("142")),
              QStringLiteral("142"));
}
