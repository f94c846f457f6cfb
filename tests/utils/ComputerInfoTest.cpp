#include "common/DropboxHome.h"
#include "platform/FileSecretStore.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSet>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

namespace {

// The computer files folder of a Dropbox home, relative to the home.
const QString kComputers = QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/computers/");

QJsonObject machine(const QString &name, double lastUpdated)
{
    return {{QStringLiteral("computer_name"), name}, {QStringLiteral("last_updated"), lastUpdated}};
}

} // namespace

TEST(ComputerInfo, CleanUpTrashesConflictsOldFilesDuplicatesAndMarkerCopies)
{
    DropboxHome info;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const double t = vd_FileUtils::JSONDate(now);
    const QString own = vd_FileUtils::getComputerUUID() + QStringLiteral(".json");
    const QString undated = QStringLiteral("undated.json");
    const std::tuple<QString, QJsonObject, bool> files[] = {
        {own, machine(QStringLiteral("ours"), t - 50), true},
        // Names of 61 characters or more are the cloud client's conflicted copies; 60 is an ordinary name.
        {QString(56, u'c') + QStringLiteral(".json"), machine(QStringLiteral("conflict"), t), false},
        {QString(55, u'k') + QStringLiteral(".json"), machine(QStringLiteral("kept"), t), true},
        {QStringLiteral("recent.json"), machine(QStringLiteral("recent"), t - 199999), true},
        {QStringLiteral("old.json"), machine(QStringLiteral("old"), t - 200001), false},
        {QStringLiteral("future.json"), machine(QStringLiteral("future"), t + 200001), false},
        {QStringLiteral("dupOlder.json"), machine(QStringLiteral("twin"), t - 100), false},
        {QStringLiteral("dupNewer.json"), machine(QStringLiteral("twin"), t - 10), true},
        {QStringLiteral("tieA.json"), machine(QStringLiteral("tie"), t - 5), true},
        {QStringLiteral("tieB.json"), machine(QStringLiteral("tie"), t - 5), true},
        // Files without a name are nobody's duplicates.
        {QStringLiteral("namelessA.json"), {{QStringLiteral("last_updated"), t - 20}}, true},
        {QStringLiteral("namelessB.json"), {{QStringLiteral("last_updated"), t - 30}}, true},
        // Without "last_updated" the modification time dates the file: this one is backdated below.
        {undated, {{QStringLiteral("computer_name"), QStringLiteral("u")}}, false}};
    QStringList expected{QStringLiteral("junk.json")};
    for (const auto &[name, content, kept] : files) {
        info.writeFile(kComputers + name, QJsonDocument(content).toJson());
        if (kept)
            expected.append(name);
    }
    const struct timespec longAgo[2] = {{0, UTIME_OMIT}, {qint64(t) - 300000, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(info.filePath(kComputers + undated)).constData(), longAgo, 0);
    info.writeFile(kComputers + QStringLiteral("junk.json"), "[not an object");
    info.writeFile(
        QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here (conflicted copy).json"), "{}");

    vd_FileUtils::writeComputerInfoFileTo(info.root(), false, now);

    expected.sort(); // the computer id is random, so its place in the listing is too
    QStringList remaining = QDir(info.filePath(kComputers)).entryList(QDir::Files);
    remaining.sort();
    EXPECT_EQ(remaining, expected);
    // Nothing was deleted: every removed item is in the trash with its restore record.
    const QString trash = info.filePath(QStringLiteral(".local/share/Trash/"));
    const QStringList trashed = QDir(trash + QStringLiteral("files"))
                                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    EXPECT_EQ(trashed.size(), 6) << trashed.join(u',').toStdString();
    for (const QString &name : trashed)
        EXPECT_GT(QFileInfo(trash + QStringLiteral("info/") + name + QStringLiteral(".trashinfo")).size(), 0);
    EXPECT_TRUE(QFileInfo::exists(info.root() + QStringLiteral("/data.vdldata/sessions_are_here.json")));

    const QJsonObject written = vd_FileUtils::readJsonFileMutableDictionary(info.filePath(kComputers + own));
    EXPECT_EQ(written.value(QStringLiteral("platform")).toString(), QStringLiteral("osx"));
    EXPECT_EQ(written.value(QStringLiteral("computer_id")).toString() + QStringLiteral(".json"), own);
    EXPECT_EQ(written.value(QStringLiteral("dropbox_path")).toString(),
              info.filePath(QStringLiteral("Dropbox")));
    EXPECT_TRUE(QFileInfo(written.value(QStringLiteral("uploads_folder")).toString()).isDir());
    EXPECT_DOUBLE_EQ(written.value(QStringLiteral("last_updated")).toDouble(), t);
}

TEST(ComputerInfo, PasswordFlagAndCheckOnlyWrites)
{
    DropboxHome info;
    const QString own = info.filePath(kComputers + vd_FileUtils::getComputerUUID() + QStringLiteral(".json"));
    const auto flag = [&] {
        return vd_FileUtils::readJsonFileMutableDictionary(own).value(QStringLiteral("pword_required"));
    };
    vd_FileUtils::ensureComputerInfo();
    ASSERT_TRUE(QFileInfo::exists(own));
    // No root: no data folder at the top of the file system.
    vd_FileUtils::writeComputerInfoFileTo(QString(), false);
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/data.vdldata")));

    // With the file present a check changes nothing, not even the clean-up.
    const QString conflict = info.writeFile(kComputers + QString(60, u'x') + QStringLiteral(".j"),
                                            QJsonDocument(machine(QStringLiteral("c"), 0)).toJson());
    info.setPassword(QStringLiteral("secret"));
    vd_FileUtils::ensureComputerInfo();
    EXPECT_TRUE(QFileInfo::exists(conflict));
    EXPECT_TRUE(flag().isUndefined());

    vd_FileUtils::updateComputerInfo();
    EXPECT_FALSE(QFileInfo::exists(conflict));
    EXPECT_EQ(flag(), QJsonValue(true));

    // A password store that cannot be read changes nothing about the flag, either way.
    const QByteArray keychain = QFile::encodeName(FileSecretStore::defaultPath());
    ::chmod(keychain.constData(), 0644);
    vd_FileUtils::updateComputerInfo();
    EXPECT_EQ(flag(), QJsonValue(true));
    ::chmod(keychain.constData(), 0600);

    info.setPassword(QStringLiteral(""));
    vd_FileUtils::updateComputerInfo();
    EXPECT_TRUE(flag().isUndefined());
    ::chmod(keychain.constData(), 0644);
    vd_FileUtils::updateComputerInfo();
    EXPECT_TRUE(flag().isUndefined());
}

TEST(ComputerInfo, OneComputerIdForManyThreadsAndVersionRule)
{
    TempHome home;
    QList<QString> ids(16);
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < ids.size(); ++i)
            threads.emplace_back([&ids, i] { ids[i] = vd_FileUtils::getComputerUUID(); });
    }
    EXPECT_EQ(QSet<QString>(ids.begin(), ids.end()).size(), 1);
    EXPECT_EQ(ids.first().size(), 32);
    EXPECT_FALSE(ids.first().contains(u'+') || ids.first().contains(u'/') || ids.first().contains(u'='));
    // A version too long for the WebApp's field gives way to the build number.
    EXPECT_EQ(vd_FileUtils::appVersionString(QString(21, u'9'), QStringLiteral("142")),
              QStringLiteral("142"));
}
