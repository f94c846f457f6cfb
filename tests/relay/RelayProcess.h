#pragma once

#include <QProcess>
#include <QRegularExpression>
#include <QStringList>

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
