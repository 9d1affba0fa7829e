#include "base/Json.h"

#include <QJsonDocument>

namespace zuv::json {

namespace {

QString kindOf(const QJsonValue &v)
{
    switch (v.type()) {
    case QJsonValue::Null: return QStringLiteral("null");
    case QJsonValue::Bool: return QStringLiteral("a Boolean");
    case QJsonValue::Double: return QStringLiteral("a number");
    case QJsonValue::String: return QStringLiteral("a string");
    case QJsonValue::Array: return QStringLiteral("a list");
    case QJsonValue::Object: return QStringLiteral("an object");
    case QJsonValue::Undefined: break;
    }
    return QStringLiteral("nothing");
}

} // namespace

QJsonValue parse(const QByteArray &body)
{
    // QJsonDocument takes only objects and arrays at the top; wrapping the body
    // in a list lets a reply of `null`, a string or a number through as well.
    QByteArray wrapped;
    wrapped.reserve(body.size() + 2);
    wrapped.append('[').append(body).append(']');
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(wrapped, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray() || document.array().size() != 1) {
        const QString reason = error.error != QJsonParseError::NoError ? error.errorString()
                                                                       : QStringLiteral("not one value");
        throw DecodingError(QStringLiteral("The data couldn't be read because it isn't valid JSON (%1).").arg(reason));
    }
    return document.array().at(0);
}

void typeMismatch(const char *expected, const QJsonValue &value)
{
    throw DecodingError(QStringLiteral("Expected %1 but found %2.").arg(QLatin1String(expected), kindOf(value)));
}

void rethrowAt(const QString &key, const DecodingError &error)
{
    QString text = error.localizedDescription();
    // Errors read "At a.b[2]: …" with the path grown from the inside out.
    static const QString at = QStringLiteral("At ");
    if (text.startsWith(at)) {
        const QString rest = text.mid(at.size());
        const QString joiner = rest.startsWith(QLatin1Char('[')) ? QString() : QStringLiteral(".");
        throw DecodingError(at + key + joiner + rest);
    }
    throw DecodingError(at + key + QStringLiteral(": ") + text);
}

} // namespace zuv::json

namespace zuv::json {

QByteArray encode(const QJsonValue &value)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

} // namespace zuv::json
