#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

// "info": a short description of one item as name/value lines: its name, its size and, for a folder, how
// many items it holds. A large folder is measured for at most 2 s; the figures are then lower bounds,
// marked "> ".
class ItemInfoHandler
{
public:
    // Sets "info" when "path" is not empty.
    static void handleItemInfoRequest(QJsonObject &request);
    static QJsonArray infos(const QString &path);
    // Appends {"name", "value"} when both texts are non-empty.
    static void addItemLine(const QString &name, const QString &value, QJsonArray &lines);
};
