#include "platform/UserDefaults.h"

#include "common/TempHome.h"
#include "platform/SettingsKeys.h"

#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

TEST(UserDefaults, DefaultsStoredValuesAndOverrides)
{
    TempHome home;
    EXPECT_EQ(UserDefaults::filePath(), home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")));
    EXPECT_FALSE(UserDefaults::boolValue(SettingsKeys::RunInDock));
    EXPECT_FALSE(UserDefaults::contains(SettingsKeys::RunInDock));
    EXPECT_FALSE(UserDefaults::value(SettingsKeys::LastBestPath).isValid());

    UserDefaults::setValue(SettingsKeys::RunInDock, true);
    UserDefaults::setValue(SettingsKeys::LastBestPath, QStringLiteral("/home/x/Dropbox/Projects/Vandrel"));
    EXPECT_TRUE(UserDefaults::boolValue(SettingsKeys::RunInDock));
    EXPECT_TRUE(QFile(UserDefaults::filePath()).exists());
    UserDefaults::remove(SettingsKeys::LastBestPath);
    EXPECT_FALSE(UserDefaults::contains(SettingsKeys::LastBestPath));

    UserDefaults::setValue(SettingsKeys::RelayServerURL, QStringLiteral("https://stored.example"));
    qputenv("VANDREL_RELAY_URL", "http://127.0.0.1:9");
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::RelayServerURL), QStringLiteral("http://127.0.0.1:9"));
    qunsetenv("VANDREL_RELAY_URL");
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::RelayServerURL),
              QStringLiteral("https://stored.example"));
}

TEST(UserDefaults, ConcurrentWritersLoseNothing)
{
    TempHome home;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back(QThread::create([t] {
            for (int i = 0; i < 25; ++i)
                UserDefaults::setValue(QStringLiteral("k%1_%2").arg(t).arg(i), i);
        }));
        threads.back()->start();
    }
    for (auto &thread : threads)
        thread->wait();
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 25; ++i)
            EXPECT_EQ(UserDefaults::intValue(QStringLiteral("k%1_%2").arg(t).arg(i)), i);
    }
}
