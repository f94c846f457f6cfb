#include "RunningRelay.h"
#include "common/TempHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <signal.h>

using namespace Qt::StringLiterals;

namespace {

// The relay binary as a user starts it; the first line of its output is the address with the token.
struct RelayProcess
{
    explicit RelayProcess(const QStringList &arguments)
    {
        process.start(QStringLiteral(VANDREL_RELAY_BINARY), arguments);
        while (line.isEmpty() && process.waitForReadyRead(30000))
            line = QString::fromUtf8(process.readLine()).trimmed();
        const QRegularExpressionMatch match =
            QRegularExpression(u"http://127\\.0\\.0\\.1:(\\d+)/#token=([A-Za-z0-9_-]+)$"_s).match(line);
        port = quint16(match.captured(1).toUInt());
        token = match.captured(2).toLatin1();
    }
    // True once the process has ended, however early.
    bool finished() { return process.state() == QProcess::NotRunning || process.waitForFinished(20000); }

    QProcess process; // its destructor kills a relay still running
    QString line;
    quint16 port = 0;
    QByteArray token;
};

} // namespace

TEST(RelayProcess, MakesAPrivateTokenPrintsTheAddressAndCleansUpOnSignal)
{
    QTemporaryDir dir;
    const QString state = dir.filePath(u"state"_s);
    const QString cloud = dir.filePath(u"cloud"_s);
    QDir().mkpath(cloud);
    const QStringList base = {u"--port"_s, u"0"_s, u"--state-dir"_s, state};
    RelayProcess relay(base + QStringList{u"--cloud-folder"_s, cloud, u"--web-root"_s, dir.path()});
    ASSERT_NE(relay.port, 0) << relay.line.toStdString()
                             << relay.process.readAllStandardError().toStdString();
    EXPECT_EQ(readFile(state + u"/access_token"_s).trimmed(), relay.token);
    EXPECT_EQ(QFile::permissions(state + u"/access_token"_s),
              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                  QFileDevice::WriteUser);

    RelayClient browser(relay.port);
    ASSERT_EQ(browser.login(relay.token).status, 200);
    const QString session = browser.openSession();
    const QString sessionFile = cloud + u"/Apps/vandrel/data.vdldata/sessions/"_s + session + u".json"_s;
    EXPECT_EQ(browser.get("/l/f/2/marker-text/a/b/c/secret-name").status, 200);
    EXPECT_TRUE(QFileInfo::exists(sessionFile));
    ::kill(pid_t(relay.process.processId()), SIGINT);
    ASSERT_TRUE(relay.finished());
    EXPECT_EQ(relay.process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(relay.process.exitCode(), 0);
    EXPECT_FALSE(QFileInfo::exists(sessionFile));
    const QByteArray log = relay.process.readAllStandardError();
    EXPECT_FALSE(log.contains(session.toLatin1())) << "session ids are not logged";
    EXPECT_FALSE(log.contains("secret-name") || log.contains("marker-text")) << "links are not logged";

    EXPECT_EQ(RelayProcess(base).token, relay.token) << "the token is kept across starts";
    // A token others can read is not a secret: the relay refuses to start with it.
    QFile::setPermissions(state + u"/access_token"_s,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
    RelayProcess exposed(base);
    ASSERT_TRUE(exposed.finished());
    EXPECT_EQ(exposed.process.exitCode(), 1);
    EXPECT_TRUE(exposed.process.readAllStandardError().contains("mode 0600"));

    RelayProcess badPort({u"--port"_s, u"70000"_s, u"--state-dir"_s, state});
    ASSERT_TRUE(badPort.finished());
    EXPECT_EQ(badPort.process.exitCode(), 2);
}
