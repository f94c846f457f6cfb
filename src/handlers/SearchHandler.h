#pragma once

#include <QJsonObject>

// "search": the computer item, a listing or a search of the metadata index, told apart by the request's
// keys, answered as one page of item records.
class SearchHandler
{
public:
    static void handleSearchRequest(QJsonObject &request);
};
