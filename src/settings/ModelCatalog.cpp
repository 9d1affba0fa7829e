#include "settings/ModelCatalog.h"

#include "base/Json.h"

#include <QJsonArray>

namespace zuv {

namespace {

QJsonArray optionsJson(const std::vector<ModelOption> &options)
{
    QJsonArray array;
    for (const auto &option : options)
        array.append(option.toJson());
    return array;
}

} // namespace

ModelOption ModelOption::fromJson(const QJsonObject &o)
{
    using namespace json;
    ModelOption m;
    m.id = required<QString>(o, QStringLiteral("id"));
    m.name = required<QString>(o, QStringLiteral("name"));
    if (auto efforts = optional<std::vector<QString>>(o, QStringLiteral("efforts")))
        m.efforts = QStringList(efforts->begin(), efforts->end());
    m.defaultEffort = optional<QString>(o, QStringLiteral("defaultEffort"));
    return m;
}

QJsonObject ModelOption::toJson() const
{
    QJsonObject o{{QStringLiteral("id"), id}, {QStringLiteral("name"), name}};
    if (efforts)
        o.insert(QStringLiteral("efforts"), QJsonArray::fromStringList(*efforts));
    json::put(o, QStringLiteral("defaultEffort"), defaultEffort);
    return o;
}

ModelCatalog::Choice ModelCatalog::Choice::fromJson(const QJsonObject &o)
{
    using namespace json;
    return {required<QString>(o, QStringLiteral("model")), optional<QString>(o, QStringLiteral("effort"))};
}

QJsonObject ModelCatalog::Choice::toJson() const
{
    QJsonObject o{{QStringLiteral("model"), model}};
    json::put(o, QStringLiteral("effort"), effort);
    return o;
}

ModelCatalog ModelCatalog::fromJson(const QJsonObject &o)
{
    using namespace json;
    ModelCatalog c;
    c.claude = optional<std::vector<ModelOption>>(o, QStringLiteral("claude"));
    c.codex = optional<std::vector<ModelOption>>(o, QStringLiteral("codex"));
    c.codexDefault = optional<Choice>(o, QStringLiteral("codexDefault"));
    return c;
}

QJsonObject ModelCatalog::toJson() const
{
    QJsonObject o;
    if (claude)
        o.insert(QStringLiteral("claude"), optionsJson(*claude));
    if (codex)
        o.insert(QStringLiteral("codex"), optionsJson(*codex));
    if (codexDefault)
        o.insert(QStringLiteral("codexDefault"), codexDefault->toJson());
    return o;
}

} // namespace zuv
