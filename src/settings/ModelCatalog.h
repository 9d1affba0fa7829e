#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

namespace zuv {

struct ModelOption {
    QString id;
    QString name;
    std::optional<QStringList> efforts;
    std::optional<QString> defaultEffort;

    static ModelOption fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const ModelOption &) const = default;
};

// Which models and reasoning efforts the hub offers for each agent.
struct ModelCatalog {
    struct Choice {
        QString model;
        std::optional<QString> effort;

        static Choice fromJson(const QJsonObject &object);
        QJsonObject toJson() const;
        bool operator==(const Choice &) const = default;
    };

    std::optional<std::vector<ModelOption>> claude;
    std::optional<std::vector<ModelOption>> codex;
    std::optional<Choice> codexDefault;

    static ModelCatalog fromJson(const QJsonObject &object);
    QJsonObject toJson() const;
    bool operator==(const ModelCatalog &) const = default;
};

} // namespace zuv
