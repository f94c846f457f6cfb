#include "engine/RelayForm.h"

#include "engine/EngineLog.h"
#include "utils/vd_FileUtils.h"

#include <QJsonArray>
#include <QLocale>

#include <cmath>

std::optional<QString> RelayForm::value(const QString &name) const
{
    for (const auto &[key, text] : fields) {
        if (key == name)
            return text;
    }
    return std::nullopt;
}

std::optional<QString> RelayForm::fieldText(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::String:
        return value.toString();
    case QJsonValue::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QJsonValue::Double: {
        const double number = value.toDouble();
        if (std::trunc(number) == number && std::abs(number) < 1e15)
            return QString::number(qint64(number));
        return QString::number(number, 'g', QLocale::FloatingPointShortest);
    }
    case QJsonValue::Array: {
        QStringList texts;
        const QJsonArray array = value.toArray();
        for (const QJsonValue &element : array) {
            if (element.isArray())
                return std::nullopt;
            const std::optional<QString> text = fieldText(element);
            if (!text)
                return std::nullopt;
            texts << *text;
        }
        return texts.join(u',');
    }
    case QJsonValue::Object:
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        break;
    }
    return std::nullopt;
}

RelayForm RelayForm::build(const std::optional<QJsonObject> &result, const QStringList &sessionIds,
                           const QString &computerId, const std::function<QString()> &encryptResult)
{
    RelayForm form{QStringLiteral("/result"), {}};
    if (result) {
        if (result->value(QStringLiteral("encrypt_reply")) == QJsonValue(true)) {
            // The WebApp's cache hints travel in the clear beside the ciphertext.
            for (const QString &hint : {QStringLiteral("cache_key"), QStringLiteral("lifetime")}) {
                if (!result->contains(hint))
                    continue;
                if (const std::optional<QString> text = fieldText(result->value(hint)))
                    form.fields.append({hint, *text});
                else
                    qCWarning(lcEngine).noquote() << QStringLiteral("skipping bad parameter: %1").arg(hint);
            }
            form.fields.append({QStringLiteral("result_encrypted"), encryptResult()});
            form.path += QStringLiteral("_encrypted");
        } else if (const std::optional<QString> packed = vd_FileUtils::base64URLSafeZlibJSON(*result)) {
            form.fields.append({QStringLiteral("result"), *packed});
        }
    }
    form.fields.append({QStringLiteral("computer_id"), computerId});
    if (const std::optional<QString> packed =
            vd_FileUtils::base64URLSafeZlibJSON(QJsonArray::fromStringList(sessionIds)))
        form.fields.append({QStringLiteral("os_sessions"), *packed});
    return form;
}
