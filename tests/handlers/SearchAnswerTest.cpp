#include "common/Envelope.h"
#include "common/TempHome.h"
#include "handlers/SearchHandler.h"
#include "support/Encodings.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QJsonArray>

#include <gtest/gtest.h>

// A folder of many sub-folders answers with the kept, already deflated list joined into each answer; what
// the WebApp unpacks is the plain answer, also once the folder changes.
TEST(SearchAnswer, KeptSubFolderListPacksAsThePlainAnswer)
{
    TempHome home;
    QDir folder(home.path());
    for (int i = 0; i < 700; ++i)
        ASSERT_TRUE(folder.mkdir(QStringLiteral("folder %1 é\"\\").arg(i)));
    const auto answer = [&] {
        QJsonObject request{{QStringLiteral("request_type"), QStringLiteral("search")},
                            {QStringLiteral("search_dir"), home.path()}};
        SearchHandler::handleSearchRequest(request);
        return request;
    };

    for (int round = 0; round < 3; ++round) {
        if (round == 2) {
            ASSERT_TRUE(folder.mkdir(QStringLiteral("zz added")));
        }
        const QJsonObject plain = answer();
        ASSERT_EQ(plain.value(QStringLiteral("sub_folders")).toArray().size(), round == 2 ? 701 : 700);
        const std::optional<QString> packed = vd_FileUtils::base64URLSafeZlibJSON(plain);
        ASSERT_TRUE(packed);
        EXPECT_EQ(unpackEnvelope(*packed), QJsonDocument(plain)) << "round " << round;
        // Joined pieces, not one stream over the plain text.
        EXPECT_NE(dataWithBase64EncodedString_URL_SAFE(*packed),
                  zlibDeflate(QJsonDocument(plain).toJson(QJsonDocument::Compact)));
    }
}
