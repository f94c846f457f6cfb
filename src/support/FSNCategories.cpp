#include "support/FSNCategories.h"

#include "support/Logging.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLocale>
#include <QStringList>
#include <QUrl>

namespace {

bool isList(const QVariant &value)
{
    const int type = value.typeId();
    return type == QMetaType::QVariantList || type == QMetaType::QStringList;
}

QString debugText(const QVariant &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text;
}

} // namespace

QString urlEncodedString(const QString &text)
{
    // QUrl::toPercentEncoding keeps exactly the unreserved set and escapes everything else.
    return QString::fromLatin1(QUrl::toPercentEncoding(text));
}

std::optional<QString> parameterText(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Double:
    case QMetaType::Float:
        return QString::number(value.toDouble(), 'g', QLocale::FloatingPointShortest);
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::SChar:
        return QString::number(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return QString::number(value.toULongLong());
    default:
        return std::nullopt;
    }
}

std::optional<QString> urlEncodedString(const QVariant &value)
{
    if (!isList(value)) {
        const std::optional<QString> text = parameterText(value);
        if (!text)
            return std::nullopt;
        return urlEncodedString(*text);
    }
    QStringList parts;
    for (const QVariant &element : value.toList()) {
        std::optional<QString> part = urlEncodedString(element);
        if (!part)
            return std::nullopt;
        parts.append(std::move(*part));
    }
    return parts.join(QLatin1Char(','));
}

QString urlQueryString(const QVariantMap &parameters)
{
    QString query;
    for (auto it = parameters.cbegin(); it != parameters.cend(); ++it) {
        const std::optional<QString> value = urlEncodedString(it.value());
        if (!value) {
            qCWarning(lcSupport).noquote()
                << QStringLiteral(
                       "ERROR: %1: skipping bad parameter: key class: %2 key: %3; value class: %4; "
                       "value: %5")
                       .arg(QLatin1String(__func__), QStringLiteral("QString"), it.key(),
                            QLatin1String(it.value().typeName()), debugText(it.value()));
            continue;
        }
        if (!query.isEmpty())
            query += QLatin1Char('&');
        query += urlEncodedString(it.key()) + QLatin1Char('=') + *value;
    }
    return query;
}

std::optional<QJsonObject> dictionaryFromJSONWithError(const QByteArray &json, std::optional<FSNError> *error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        if (error)
            *error = FSNError{
                FSNJsonErrorDomain,
                int(parseError.error),
                QStringLiteral("%1 at offset %2").arg(parseError.errorString()).arg(parseError.offset),
                {}};
        return std::nullopt;
    }
    if (document.isObject())
        return document.object();
    // Without fragments allowed the parser gives an object or an array; anything but an object is refused.
    if (error)
        *error = FSNError{
            FSNConnectionErrorDomain, 1,
            QStringLiteral("JSON result is not a dictionary; type: %1").arg(QStringLiteral("QJsonArray")),
            QVariant(document.array())};
    return std::nullopt;
}
