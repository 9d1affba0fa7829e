#pragma once

#include "base/Error.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <cmath>
#include <concepts>
#include <optional>
#include <vector>

namespace zuv {

// A field that decodes when it can and is absent when it cannot, instead of
// failing the record that holds it.
template<class T>
struct Lenient {
    std::optional<T> value;
    bool operator==(const Lenient &) const = default;
};

namespace json {

// Parses a reply body whose top level may be any JSON value, `null` included.
QJsonValue parse(const QByteArray &body);

template<class T>
struct Decoder;

// A record decodes through its static fromJson(const QJsonObject&).
template<class T>
concept Record = requires(const QJsonObject &object) {
    { T::fromJson(object) } -> std::same_as<T>;
};

template<class T>
T decode(const QJsonValue &value)
{
    return Decoder<T>::decode(value);
}

[[noreturn]] void typeMismatch(const char *expected, const QJsonValue &value);
// Adds `key` to the path of a decoding error from a nested value.
[[noreturn]] void rethrowAt(const QString &key, const DecodingError &error);

template<>
struct Decoder<QString> {
    static QString decode(const QJsonValue &v)
    {
        if (!v.isString())
            typeMismatch("a string", v);
        return v.toString();
    }
};

template<>
struct Decoder<double> {
    static double decode(const QJsonValue &v)
    {
        if (!v.isDouble())
            typeMismatch("a number", v);
        return v.toDouble();
    }
};

template<>
struct Decoder<qint64> {
    static qint64 decode(const QJsonValue &v)
    {
        if (!v.isDouble())
            typeMismatch("an integer", v);
        const double d = v.toDouble();
        if (d != std::floor(d) || std::abs(d) > 9007199254740992.0)
            typeMismatch("an integer", v);
        return qint64(d);
    }
};

template<>
struct Decoder<bool> {
    static bool decode(const QJsonValue &v)
    {
        if (!v.isBool())
            typeMismatch("a Boolean", v);
        return v.toBool();
    }
};

template<>
struct Decoder<QJsonValue> {
    static QJsonValue decode(const QJsonValue &v) { return v; }
};

template<>
struct Decoder<QJsonObject> {
    static QJsonObject decode(const QJsonValue &v)
    {
        if (!v.isObject())
            typeMismatch("an object", v);
        return v.toObject();
    }
};

template<Record T>
struct Decoder<T> {
    static T decode(const QJsonValue &v)
    {
        if (!v.isObject())
            typeMismatch("an object", v);
        return T::fromJson(v.toObject());
    }
};

template<class T>
struct Decoder<std::vector<T>> {
    static std::vector<T> decode(const QJsonValue &v)
    {
        if (!v.isArray())
            typeMismatch("a list", v);
        const QJsonArray array = v.toArray();
        std::vector<T> out;
        out.reserve(size_t(array.size()));
        for (qsizetype i = 0; i < array.size(); ++i) {
            try {
                out.push_back(Decoder<T>::decode(array.at(i)));
            } catch (const DecodingError &e) {
                rethrowAt(QStringLiteral("[%1]").arg(i), e);
            }
        }
        return out;
    }
};

// `null` is none; anything else must decode as T.
template<class T>
struct Decoder<std::optional<T>> {
    static std::optional<T> decode(const QJsonValue &v)
    {
        if (v.isNull() || v.isUndefined())
            return std::nullopt;
        return Decoder<T>::decode(v);
    }
};

template<class T>
struct Decoder<Lenient<T>> {
    static Lenient<T> decode(const QJsonValue &v)
    {
        try {
            return {Decoder<std::optional<T>>::decode(v)};
        } catch (const std::exception &) {
            return {};
        }
    }
};

// A key that must be there.
template<class T>
T required(const QJsonObject &object, const QString &key)
{
    const auto it = object.constFind(key);
    if (it == object.constEnd())
        throw DecodingError(QStringLiteral("The key \"%1\" is missing.").arg(key));
    try {
        return Decoder<T>::decode(*it);
    } catch (const DecodingError &e) {
        rethrowAt(key, e);
    }
}

// A key that may be missing or null; any other value must decode.
template<class T>
std::optional<T> optional(const QJsonObject &object, const QString &key)
{
    const auto it = object.constFind(key);
    if (it == object.constEnd())
        return std::nullopt;
    try {
        return Decoder<std::optional<T>>::decode(*it);
    } catch (const DecodingError &e) {
        rethrowAt(key, e);
    }
}

template<class T>
Lenient<T> lenient(const QJsonObject &object, const QString &key)
{
    return Decoder<Lenient<T>>::decode(object.value(key));
}

// A key as a template argument: Field<std::vector<Entry>, "entries">.
template<size_t N>
struct Key {
    char name[N];
    constexpr Key(const char (&text)[N])
    {
        for (size_t i = 0; i < N; ++i)
            name[i] = text[i];
    }
};

// A reply that is one required field, as many of the hub's replies are.
template<class T, Key K>
struct Field {
    T value;
    static Field fromJson(const QJsonObject &object) { return {required<T>(object, QString::fromLatin1(K.name))}; }
};

// Decodes a whole reply body as T.
template<class T>
T decodeBody(const QByteArray &body)
{
    return Decoder<T>::decode(parse(body));
}

// Encoding of optional fields: only present values are written.
template<class T>
void put(QJsonObject &object, const QString &key, const std::optional<T> &value)
{
    if (value)
        object.insert(key, *value);
}

} // namespace json
} // namespace zuv

namespace zuv::json {
// Compact JSON text of any value (objects, lists and plain values alike).
QByteArray encode(const QJsonValue &value);
} // namespace zuv::json
