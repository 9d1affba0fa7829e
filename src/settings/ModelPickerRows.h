#pragma once

#include "settings/ModelCatalog.h"

#include <QString>

#include <optional>
#include <vector>

namespace zuv {

class Models;

// The two choice rows of every model picker: the model, and the reasoning effort
// when the chosen model has efforts. An empty tag stands for the default.
class ModelPickerRows {
public:
    struct Row {
        QString tag;
        QString title;
        bool operator==(const Row &) const = default;
    };

    ModelPickerRows(const Models &models, QString agent, std::optional<QString> defaultModel = std::nullopt,
                    QString model = {}, QString effort = {});

    const QString &model() const { return m_model; }
    const QString &effort() const { return m_effort; }
    // A new model resets an effort that the new model does not offer.
    void setModel(const QString &model);
    void setEffort(const QString &effort) { m_effort = effort; }

    std::vector<Row> modelRows() const;
    bool showsEffort() const;
    std::vector<Row> effortRows() const;

private:
    // The model's option when it offers efforts to choose from.
    std::optional<ModelOption> withEfforts(const QString &model) const;

    const Models &m_models;
    QString m_agent;
    std::optional<QString> m_defaultModel;
    QString m_model;
    QString m_effort;
};

} // namespace zuv
