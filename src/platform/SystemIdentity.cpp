#include "platform/SystemIdentity.h"

#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>

namespace SystemIdentity {

namespace {

// machine-info is an environment-style file: KEY=value, the value optionally quoted with shell escapes.
QString unquote(QString value)
{
    value = value.trimmed();
    if (value.size() >= 2 && (value.front() == u'"' || value.front() == u'\'') &&
        value.back() == value.front()) {
        const QChar quote = value.front();
        value = value.mid(1, value.size() - 2);
        if (quote == u'"')
            value.replace(QRegularExpression(QStringLiteral("\\\\(.)")), QStringLiteral("\\1"));
    }
    return value;
}

} // namespace

QString prettyComputerName(const QString &machineInfoPath)
{
    QFile file(machineInfoPath);
    if (file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        const QStringList lines = QString::fromUtf8(file.read(64 * 1024)).split(u'\n');
        for (const QString &line : lines) {
            if (line.startsWith(u"PRETTY_HOSTNAME=")) {
                const QString name = unquote(line.mid(int(sizeof "PRETTY_HOSTNAME=") - 1));
                if (!name.isEmpty())
                    return name;
            }
        }
    }
    return QHostInfo::localHostName();
}

QString machineId(const QStringList &candidates)
{
    for (const QString &candidate : candidates) {
        QFile file(candidate);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const QString id = QString::fromLatin1(file.readLine(256)).trimmed();
        if (!id.isEmpty())
            return id;
    }
    return QString();
}

} // namespace SystemIdentity
