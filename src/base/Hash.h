#pragma once

#include <QHashFunctions>
#include <QString>

#include <optional>
#include <vector>

// Hashing over every field of a record, for records with value semantics.
namespace zuv::hashing {

inline size_t value(const QString &s) { return qHash(s); }
inline size_t value(double d) { return qHash(d); }
inline size_t value(bool b) { return qHash(b); }
inline size_t value(qint64 i) { return qHash(i); }

template<class T>
    requires requires(const T &t) { { t.hash() } -> std::convertible_to<size_t>; }
size_t value(const T &t)
{
    return t.hash();
}

template<class T>
size_t value(const std::optional<T> &o);
template<class T>
size_t value(const std::vector<T> &v);

inline size_t mix(size_t seed, size_t h) { return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2)); }

template<class T>
size_t value(const std::optional<T> &o)
{
    return o ? mix(1, value(*o)) : 0;
}

template<class T>
size_t value(const std::vector<T> &v)
{
    size_t seed = v.size();
    for (const auto &element : v)
        seed = mix(seed, value(element));
    return seed;
}

template<class... Fields>
size_t combine(const Fields &...fields)
{
    size_t seed = 0;
    ((seed = mix(seed, value(fields))), ...);
    return seed;
}

} // namespace zuv::hashing
