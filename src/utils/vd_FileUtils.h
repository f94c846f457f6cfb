#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// The files the agent and the WebApp exchange inside a StorageRoot, and how they are read and written.
class vd_FileUtils
{
public:
    // --- Storage layout and JSON files ---

    // "<root>/data.vdldata", created with its parents when missing.
    static QString getDataFolderPath(const QString &storageRoot);
    // "<root>/data.vdldata/computers", created with its parents on every call.
    static QString getRootsPath(const QString &storageRoot);
    // "<base>/<year>/<month>" of the given moment in local time, month without a leading zero. Builds the
    // path only; callers create the folders.
    static QString getFileByDatePath(const QString &baseFolder,
                                     const QDateTime &now = QDateTime::currentDateTime());

    // The file's top-level JSON object. Never fails: a missing or unreadable file gives an empty object
    // silently; text that is not a JSON object gives an empty object and one log line.
    static QJsonObject readJsonFileMutableDictionary(const QString &path);
    // The same rule for bytes already in memory.
    static QJsonObject jsonObjectFromBytes(const QByteArray &bytes);
    // Indented JSON, or none for a value that is not an object or an array.
    static std::optional<QByteArray> JSONDataFromObj(const QJsonValue &value);
    // Replaces the file atomically with the indented JSON of the value; failures write nothing.
    static void writeJsonFile(const QJsonValue &value, const QString &path);
    // The relay envelope: URL-safe base64 of the zlib stream of the compact JSON; none for a value that
    // cannot be serialised.
    static std::optional<QString> base64URLSafeZlibJSON(const QJsonValue &value);
    // Seconds since 1970 with the fraction kept.
    static double JSONDate(const QDateTime &date);
    // The date of a JSON number or numeric text; anything else reads as 1970.
    static QDateTime dateFromJSON(const QJsonValue &value);
};
