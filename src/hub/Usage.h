#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

// What one reply or one agent session cost.
struct Usage {
    double ms = 0;
    double turns = 0;
    double input = 0;
    double output = 0;
    std::optional<double> cached;
    double usd = 0;
    std::optional<QString> model;
    std::optional<QString> effort;

    static Usage fromJson(const QJsonObject &object);
    bool operator==(const Usage &) const = default;
    size_t hash() const;
};

} // namespace zuv
