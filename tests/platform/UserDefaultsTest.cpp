#include "platform/UserDefaults.h"

#include "common/TempHome.h"
#include "platform/SettingsKeys.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

// Settings live in the user's config folder, an environment variable overrides the stored relay address,
// and writers on several threads lose nothing.
TEST(UserDefaults, StoredValuesOverridesAndConcurrentWriters)
{
    TempHome home;
    EXPECT_EQ(UserDefaults::filePath(), home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")));
    UserDefaults::setValue(SettingsKeys::RelayServerURL, QStringLiteral("https://stored.example"));
    home.setEnvironment("VANDREL_RELAY_URL", "http://127.0.0.1:9");
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::RelayServerURL), QStringLiteral("http://127.0.0.1:9"));
    qunsetenv("VANDREL_RELAY_URL");
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::RelayServerURL),
              QStringLiteral("https://stored.example"));

    {
        std::vector<std::jthread> writers; // joined as the block ends
        for (int t = 0; t < 4; ++t)
            writers.emplace_back([t] {
                for (int i = 0; i < 25; ++i)
                    UserDefaults::setValue(QStringLiteral("k%1_%2").arg(t).arg(i), i);
            });
    }
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 25; ++i)
            EXPECT_EQ(UserDefaults::intValue(QStringLiteral("k%1_%2").arg(t).arg(i)), i);
}
