#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>
#include <zlib.h>

// Objects are read (after a byte-order mark too); other text is logged and read as empty; so is a file too
// large to be one of ours.
TEST(FileUtils, TolerantReaderLogsOnlyForTextThatIsNotAnObject)
{
    TempHome home;
    LogCapture log;
    EXPECT_TRUE(
        vd_FileUtils::readJsonFileMutableDictionary(home.filePath(QStringLiteral("missing.json"))).isEmpty());
    EXPECT_TRUE(LogCapture::lines.isEmpty());

    const auto read = [&](const QByteArray &content) {
        return vd_FileUtils::readJsonFileMutableDictionary(home.writeFile(QStringLiteral("f.json"), content));
    };
    EXPECT_EQ(read("{\"date\": 12.5, \"a\": [1]}").value(QStringLiteral("date")).toDouble(), 12.5);
    // Text saved with a UTF-8 byte-order mark in front.
    EXPECT_EQ(read("\xEF\xBB\xBF{\"date\": 3}").value(QStringLiteral("date")).toDouble(), 3);
    EXPECT_TRUE(LogCapture::lines.isEmpty());

    EXPECT_TRUE(read("[1, 2]").isEmpty());
    EXPECT_TRUE(read("not json").isEmpty());
    EXPECT_TRUE(read("\"text\"").isEmpty());
    EXPECT_TRUE(read("{\"a\":1} {\"b\":2}").isEmpty());
    EXPECT_TRUE(read("").isEmpty());
    EXPECT_EQ(LogCapture::lines, QStringList({QStringLiteral(" you said it was a dictionary! QJsonArray"),
                                              QStringLiteral(" you said it was a dictionary! nil"),
                                              QStringLiteral(" you said it was a dictionary! QString"),
                                              QStringLiteral(" you said it was a dictionary! nil"),
                                              QStringLiteral(" you said it was a dictionary! nil")}));

    const QByteArray padding(17 * 1024 * 1024, ' ');
    LogCapture::lines.clear();
    EXPECT_TRUE(read("{\"date\": 5" + padding + "}").isEmpty());
    ASSERT_EQ(LogCapture::lines.size(), 1);
    EXPECT_TRUE(LogCapture::lines.first().contains(QStringLiteral("too large")));
    EXPECT_EQ(read("{\"date\": 5" + padding.left(1 << 20) + "}").value(QStringLiteral("date")).toDouble(),
              5.0);
}

TEST(FileUtils, WritesIndentedJsonAtomicallyAndRoundTrips)
{
    TempHome home;
    const QString path = home.filePath(QStringLiteral("out.json"));
    QJsonObject record{{QStringLiteral("computer_name"), QStringLiteral("Zoë")}, {QStringLiteral("n"), 3}};
    vd_FileUtils::writeJsonFile(record, path);
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(path), record);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("\n    \"n\": 3"));

    // A value that is no object or array writes nothing and leaves the old file whole.
    vd_FileUtils::writeJsonFile(QJsonValue(5), path);
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(path), record);
    EXPECT_EQ(QDir(home.path()).entryList(QDir::Files), QStringList({QStringLiteral("out.json")}));
}

TEST(FileUtils, EnvelopeUndoesWithZlibAndBase64)
{
    for (const QJsonValue &value :
         {QJsonValue(QJsonObject()), QJsonValue(QJsonArray({QStringLiteral("s1"), QStringLiteral("s2")})),
          QJsonValue(QJsonObject{{QStringLiteral("items"), QString(5000, u'\u00e9')}})}) {
        const std::optional<QString> envelope = vd_FileUtils::base64URLSafeZlibJSON(value);
        ASSERT_TRUE(envelope.has_value());
        EXPECT_FALSE(envelope->contains(u'+') || envelope->contains(u'/'));
        EXPECT_EQ(envelope->size() % 4, 0);
        const QByteArray compressed =
            QByteArray::fromBase64(envelope->toLatin1(), QByteArray::Base64UrlEncoding);
        QByteArray json(1 << 20, '\0');
        uLongf length = uLongf(json.size());
        ASSERT_EQ(uncompress(reinterpret_cast<Bytef *>(json.data()), &length,
                             reinterpret_cast<const Bytef *>(compressed.constData()),
                             uLong(compressed.size())),
                  Z_OK);
        json.truncate(qsizetype(length));
        EXPECT_FALSE(json.contains('\n')); // compact on the wire
        const QJsonDocument document = QJsonDocument::fromJson(json);
        EXPECT_EQ(document.isObject() ? QJsonValue(document.object()) : QJsonValue(document.array()), value);
    }
    EXPECT_EQ(vd_FileUtils::base64URLSafeZlibJSON(QJsonValue()), std::nullopt);
    EXPECT_EQ(vd_FileUtils::base64URLSafeZlibJSON(QJsonValue(QJsonValue::Undefined)), std::nullopt);
}

TEST(FileUtils, LayoutFoldersAndDates)
{
    TempHome home;
    const QString root = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    EXPECT_EQ(vd_FileUtils::getRootsPath(root), root + QStringLiteral("/data.vdldata/computers"));
    EXPECT_TRUE(QFileInfo(root + QStringLiteral("/data.vdldata/computers")).isDir());

    const QDateTime march(QDate(2014, 3, 2), QTime(12, 0), Qt::LocalTime);
    const QDateTime november(QDate(2014, 11, 30), QTime(23, 59, 59), Qt::LocalTime);
    EXPECT_EQ(vd_FileUtils::getFileByDatePath(QStringLiteral("/u"), march), QStringLiteral("/u/2014/3"));
    EXPECT_EQ(vd_FileUtils::getFileByDatePath(QStringLiteral("/u"), november), QStringLiteral("/u/2014/11"));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/u/2014")));

    const QDateTime moment = QDateTime::fromMSecsSinceEpoch(1400000000250, Qt::UTC);
    EXPECT_DOUBLE_EQ(vd_FileUtils::JSONDate(moment), 1400000000.25);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(1400000000.25), moment);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(QStringLiteral("1400000000.25")), moment);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(QJsonValue(true)).toMSecsSinceEpoch(), 0);
    EXPECT_TRUE(vd_FileUtils::dateFromJSON(1e300).isValid()); // hostile values stay representable
}
