#include "settings/ModelPickerRows.h"

#include "settings/Models.h"

#include <QCoreApplication>

namespace zuv {

namespace {
QString tr(const char *text) { return QCoreApplication::translate("ModelPickerRows", text); }
} // namespace

std::optional<ModelOption> ModelPickerRows::withEfforts(const QString &model) const
{
    auto chosen = m_models.option(model, m_agent);
    if (!chosen || !chosen->efforts || chosen->efforts->isEmpty())
        return std::nullopt;
    return chosen;
}

ModelPickerRows::ModelPickerRows(const Models &models, QString agent, std::optional<QString> defaultModel,
                                 QString model, QString effort)
    : m_models(models), m_agent(std::move(agent)), m_defaultModel(std::move(defaultModel)), m_model(std::move(model)),
      m_effort(std::move(effort))
{
}

void ModelPickerRows::setModel(const QString &model)
{
    if (model == m_model)
        return;
    m_model = model;
    if (const auto chosen = withEfforts(m_model); chosen && !chosen->efforts->contains(m_effort))
        m_effort.clear();
}

std::vector<ModelPickerRows::Row> ModelPickerRows::modelRows() const
{
    std::vector<Row> rows;
    const bool namedDefault = m_agent != QLatin1String("codex") && m_defaultModel && !m_defaultModel->isEmpty();
    rows.push_back({QString(), namedDefault ? tr("Default (%1)").arg(m_models.name(*m_defaultModel))
                                            : m_models.defaultTitle(m_agent)});
    bool stored = false;
    for (const ModelOption &option : m_models.options(m_agent)) {
        rows.push_back({option.id, option.name});
        stored = stored || option.id == m_model;
    }
    // A stored choice the catalogue no longer offers stays visible, so that
    // opening the picker does not silently change it.
    if (!m_model.isEmpty() && !stored)
        rows.push_back({m_model, m_models.name(m_model)});
    return rows;
}

bool ModelPickerRows::showsEffort() const { return withEfforts(m_model).has_value(); }

std::vector<ModelPickerRows::Row> ModelPickerRows::effortRows() const
{
    std::vector<Row> rows;
    const auto chosen = withEfforts(m_model);
    if (!chosen)
        return rows;
    rows.push_back({QString(), chosen->defaultEffort
                                   ? tr("Default (%1)").arg(Models::effortName(*chosen->defaultEffort))
                                   : tr("Default")});
    for (const QString &effort : *chosen->efforts)
        rows.push_back({effort, Models::effortName(effort)});
    return rows;
}

} // namespace zuv
