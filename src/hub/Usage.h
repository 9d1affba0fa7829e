#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

namespace zuv {

class Models;

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

    // The line under a reply: model, tokens, seconds and cost joined by " · ".
    QString summary(const Models &models) const;
};

} // namespace zuv
