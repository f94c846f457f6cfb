#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

// Objects are read (after a byte-order mark too); other text is logged and read as empty; so is a file too
// large to be one of ours.
TEST(FileUtils, TolerantReaderLogsOnlyForTextThatIsNotAnObjectAndWriterReplacesWhole)
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
    EXPECT_EQ(read("\xEF\xBB\xBF{\"date\": 3}").value(QStringLiteral("date")).toDouble(), 3);
    EXPECT_TRUE(LogCapture::lines.isEmpty());

    EXPECT_TRUE(read("[1, 2]").isEmpty());
    EXPECT_TRUE(read("{\"a\":1} {\"b\":2}").isEmpty());
    EXPECT_EQ(LogCapture::lines, QStringList({QStringLiteral(" you said it was a dictionary! QJsonArray"),
                                              QStringLiteral(" you said it was a dictionary! nil")}));

    const QByteArray padding(17 * 1024 * 1024, ' ');
    LogCapture::lines.clear();
    EXPECT_TRUE(read("{\"date\": 5" + padding + "}").isEmpty());
    ASSERT_EQ(LogCapture::lines.size(), 1);
    EXPECT_TRUE(LogCapture::lines.first().contains(QStringLiteral("too large")));
    EXPECT_EQ(read("{\"date\": 5" + padding.left(1 << 20) + "}").value(QStringLiteral("date")).toDouble(),
              5.0);

    // Written indented; a value that is no object or array writes nothing and leaves the old file whole.
    const QString path = home.filePath(QStringLiteral("out.json"));
    QJsonObject record{{QStringLiteral("computer_name"), QStringLiteral("Zoë")}, {QStringLiteral("n"), 3}};
    vd_FileUtils::writeJsonFile(record, path);
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(path), record);
    EXPECT_TRUE(readFile(path).contains("\n    \"n\": 3"));
    vd_FileUtils::writeJsonFile(QJsonValue(5), path);
    EXPECT_EQ(vd_FileUtils::readJsonFileMutableDictionary(path), record);
    EXPECT_EQ(QDir(home.path()).entryList(QDir::Files),
              QStringList({QStringLiteral("f.json"), QStringLiteral("out.json")}));
}

TEST(FileUtils, JsonDatesRoundTrip)
{
    const QDateTime moment = QDateTime::fromMSecsSinceEpoch(1400000000250, Qt::UTC);
    EXPECT_DOUBLE_EQ(vd_FileUtils::JSONDate(moment), 1400000000.25);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(1400000000.25), moment);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(QStringLiteral("1400000000.25")), moment);
    EXPECT_EQ(vd_FileUtils::dateFromJSON(QJsonValue(true)).toMSecsSinceEpoch(), 0);
    EXPECT_TRUE(vd_FileUtils::dateFromJSON(1e300).isValid()); // hostile values stay representable
}
