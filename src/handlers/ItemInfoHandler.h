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
    // The lines of the item at the path.
    static QJsonArray infos(const QString &path);
};
