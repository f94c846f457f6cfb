#include "handlers/ItemInfoHandler.h"

#include "utils/PathHelpers.h"
#include "utils/vd_SimpleUtils.h"

#include <QFileInfo>

namespace {

constexpr double kMeasureSeconds = 2.0;

// Appends {"name", "value"} when both texts are non-empty.
void addItemLine(const QString &name, const QString &value, QJsonArray &lines)
{
    if (name.isEmpty() || value.isEmpty())
        return;
    lines.append(QJsonObject{{QStringLiteral("name"), name}, {QStringLiteral("value"), value}});
}

} // namespace

void ItemInfoHandler::handleItemInfoRequest(QJsonObject &request)
{
    const QString path = request.value(QStringLiteral("path")).toString();
    if (path.isEmpty())
        return;
    request.insert(QStringLiteral("info"), infos(path));
}

QJsonArray ItemInfoHandler::infos(const QString &path)
{
    QJsonArray lines;
    // Linux has no separate display name: the file name is what file managers show.
    QString named = path;
    while (named.size() > 1 && named.endsWith(u'/'))
        named.chop(1);
    addItemLine(QStringLiteral("File"), named == u"/" ? named : QFileInfo(named).fileName(), lines);
    qint64 count = 0;
    bool maxReached = false;
    const quint64 size = vd_SimpleUtils::sizeOfItem(path, kMeasureSeconds, &count, &maxReached);
    const QString prefix = maxReached ? QStringLiteral("> ") : QString();
    addItemLine(QStringLiteral("Size"), prefix + vd_SimpleUtils::stringFromByteCount(double(size)), lines);
    if (IsDirectory(path))
        addItemLine(QStringLiteral("Number of Files"), prefix + QString::number(count), lines);
    return lines;
}
