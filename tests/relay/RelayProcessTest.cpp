#include "RelayClient.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

namespace {

// The relay binary as a user starts it; the first line of its output is the address with the token.
struct RelayProcess
{
    explicit RelayProcess(const QStringList &arguments)
    {
        process.start(QStringLiteral(VANDREL_RELAY_BINARY), arguments);
        process.waitForStarted(10000);
        while (line.isEmpty() && process.state() == QProcess::Running && process.waitForReadyRead(30000))
            line = QString::fromUtf8(process.readLine()).trimmed();
        const auto match =
            QRegularExpression(QStringLiteral("http://127\\.0\\.0\\.1:(\\d+)/#token=([A-Za-z0-9_-]+)$"))
                .match(line);
        if (match.hasMatch()) {
            port = quint16(match.captured(1).toUInt());
            token = match.captured(2).toLatin1();
        }
    }
    ~RelayProcess()
    {
        if (process.state() == QProcess::Running) {
            process.kill();
            process.waitForFinished(10000);
        }
    }
    // True once the process has ended, however early.
    bool finished() { return process.state() == QProcess::NotRunning || process.waitForFinished(20000); }

    QProcess process;
    QString line;
    quint16 port = 0;
    QByteArray token;
};

} // namespace

TEST(RelayProcess, MakesAPrivateTokenPrintsTheAddressAndCleansUpOnSignal)
{
    QTemporaryDir dir;
    const QString state = dir.filePath(QStringLiteral("state"));
    const QString cloud = dir.filePath(QStringLiteral("cloud"));
    QDir().mkpath(cloud);
    QString session;
    QByteArray firstToken;
    {
        RelayProcess relay({QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--state-dir"),
                            state, QStringLiteral("--cloud-folder"), cloud, QStringLiteral("--web-root"),
                            dir.path()});
        ASSERT_NE(relay.port, 0) << relay.line.toStdString()
                                 << relay.process.readAllStandardError().toStdString();
        firstToken = relay.token;
        QFile tokenFile(state + QStringLiteral("/access_token"));
        ASSERT_TRUE(tokenFile.open(QIODevice::ReadOnly));
        EXPECT_EQ(tokenFile.readAll().trimmed(), relay.token);
        struct stat status = {};
        ASSERT_EQ(::stat(QFile::encodeName(tokenFile.fileName()).constData(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600u);

        RelayClient browser(relay.port);
        ASSERT_TRUE(browser.login(relay.token));
        session = browser.openSession();
        EXPECT_EQ(browser.get("/l/f/2/marker-text/a/b/c/secret-name").status, 200);
        EXPECT_TRUE(QFileInfo::exists(cloud + QStringLiteral("/Apps/vandrel/data.vdldata/sessions/") +
                                      session + QStringLiteral(".json")));
        ::kill(pid_t(relay.process.processId()), SIGINT);
        ASSERT_TRUE(relay.finished());
        EXPECT_EQ(relay.process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(relay.process.exitCode(), 0);
        EXPECT_FALSE(QFileInfo::exists(cloud + QStringLiteral("/Apps/vandrel/data.vdldata/sessions/") +
                                       session + QStringLiteral(".json")));
        const QByteArray log = relay.process.readAllStandardError();
        EXPECT_FALSE(log.contains(session.toLatin1())) << "session ids are not logged";
        EXPECT_FALSE(log.contains("secret-name") || log.contains("marker-text")) << "links are not logged";
    }
    {
        RelayProcess again(
            {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--state-dir"), state});
        EXPECT_EQ(again.token, firstToken) << "the token is kept across starts";
    }
    // A token others can read is not a secret: the relay refuses to start with it.
    QFile::setPermissions(state + QStringLiteral("/access_token"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
    RelayProcess exposed(
        {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--state-dir"), state});
    ASSERT_TRUE(exposed.finished());
    EXPECT_EQ(exposed.process.exitCode(), 1);
    EXPECT_EQ(exposed.port, 0);
    EXPECT_TRUE(exposed.process.readAllStandardError().contains("mode 0600"));

    RelayProcess badPort(
        {QStringLiteral("--port"), QStringLiteral("70000"), QStringLiteral("--state-dir"), state});
    ASSERT_TRUE(badPort.finished());
    EXPECT_EQ(badPort.process.exitCode(), 2);
}
