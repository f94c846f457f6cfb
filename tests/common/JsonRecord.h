#pragma once

#include <QJsonObject>
#include <QJsonValue>

#include <initializer_list>
#include <utility>

// A JSON object written as a list of members, the way requests and results read in tests.
inline QJsonObject record(std::initializer_list<std::pair<const char *, QJsonValue>> members)
{
    QJsonObject object;
    for (const auto &[key, value] : members)
        object.insert(QString::fromLatin1(key), value);
    return object;
}
