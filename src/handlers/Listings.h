#pragma once

#include <QJsonArray>
#include <QString>

// What the WebApp sees when it browses: the computer item, the roots, a folder, the iCloud documents
// folder and the iPhoto library. Every listing is a list of item records, unsorted.
class Listings
{
public:
    // The roots for an empty path, the special places by their rules, else the folder's visible children,
    // not descending.
    static QJsonArray doListing(const QString &folder);
    // The one record of the computer itself (with "pword_required" when a password is set).
    static QJsonArray doComputerList();
};
