#pragma once

#include "support/FSNError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <optional>

// URL encoding of request parameters and JSON decoding of replies, shared by FSNConnection and its
// callers. A parameter value is a string (QString), a number (any integer or floating QVariant; a bool is
// the number 1 or 0) or a list of those (QVariantList or QStringList, nested lists allowed).

// Percent-encodes the UTF-8 bytes of text, leaving only letters, digits and "-._~" as they are; every
// reserved character ("!*'();:@&=+$,/?%#[]") is escaped. Uppercase hex.
QString urlEncodedString(const QString &text);

// The plain text of a string or number parameter: the string itself, an integer in decimal, a floating
// value in its shortest exact form, a bool as "1" or "0". None for anything else.
std::optional<QString> parameterText(const QVariant &value);

// A string or number encoded as above; a list as its elements' encodings joined with "," (the comma is
// not escaped). None when the value, or any element of a list, is of another type.
std::optional<QString> urlEncodedString(const QVariant &value);

// "key=value" pairs joined with "&", key and value each URL-encoded, in the map's key order. A pair
// whose value is not acceptable is left out with a log line. Linear in the size of the parameters.
QString urlQueryString(const QVariantMap &parameters);

// Parses a JSON body whose top level must be an object. A syntax error gives none and, when error is
// given, the parser's error; any other top level gives none and the code-1 error of
// FSNConnectionErrorDomain, "JSON result is not a dictionary; type: <type>", with the value as its result.
std::optional<QJsonObject> dictionaryFromJSONWithError(const QByteArray &json,
                                                       std::optional<FSNError> *error = nullptr);
