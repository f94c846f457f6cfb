#pragma once

#include <QProcess>
#include <QStringList>

// What one run of the real `vandrel` binary gave back; exit code -1 when it crashed or would not end.
struct VandrelRun
{
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs `vandrel` with the arguments and standard input, in this process's environment unless told.
inline VandrelRun
runVandrel(const QStringList &args, const QByteArray &input = {},
           const QProcessEnvironment &environment = QProcessEnvironment::systemEnvironment(),
           const QString &workingDirectory = {})
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(workingDirectory);
    process.start(QStringLiteral(VANDREL_BINARY), args);
    process.write(input);
    process.closeWriteChannel();
    const bool ended = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit;
    return {ended ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}
