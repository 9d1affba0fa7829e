#pragma once

#include "base/Shared.h"

#include "hub/Usage.h"
#include "settings/ModelCatalog.h"

#include <QObject>

#include <optional>
#include <vector>

namespace zuv {

class Clock;
class Defaults;

// The latest model catalogue from the hub, kept across launches under
// "model-catalog", and the display names of model and effort ids.
class Models : public QObject, public Shared<Models> {
    Q_OBJECT
public:
    Models(Clock &clock, Defaults &defaults, QObject *parent = nullptr);


    const std::optional<ModelCatalog> &catalog() const { return m_catalog; }
    // When the catalogue was last offered by the hub; the distant past at first.
    double fetched() const { return m_fetched; }

    void update(const std::optional<ModelCatalog> &catalog);

    std::vector<ModelOption> options(const QString &agent) const;
    std::optional<ModelOption> option(const QString &id, const QString &agent) const;
    QString name(const QString &id) const;
    QString label(const QString &model, const QString &effort) const;
    QString defaultTitle(const QString &agent) const;
    // The line under a reply: model, tokens, seconds and cost joined by " · ".
    QString summary(const Usage &usage) const;

    static QString prettyName(const QString &id);
    static QString effortName(const QString &id);
    static const std::vector<ModelOption> &fallbackClaude();

signals:
    void changed();

private:
    Clock &m_clock;
    Defaults &m_defaults;
    std::optional<ModelCatalog> m_catalog;
    double m_fetched;
};

} // namespace zuv
