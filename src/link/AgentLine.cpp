#include "link/AgentLine.h"

#include "link/AppModel.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace zuv {

namespace {

// The JSON object that runs from `from` to the end of the line, if it is one.
std::optional<QJsonObject> objectFrom(const QString &line, qsizetype from)
{
    if (from < 0)
        return std::nullopt;
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(QStringView(line).mid(from).toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

// The payload of a marker that ends in "{" starts at that brace.
std::optional<QJsonObject> markerPayload(const QString &line, const QString &marker)
{
    const qsizetype at = line.indexOf(marker);
    return at < 0 ? std::nullopt : objectFrom(line, at + marker.size() - 1);
}

} // namespace

AgentLine::AgentLine(AppModel &model) : m_model(&model) {}

bool AgentLine::starts(const QString &line, QStringView prefix)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT[\\d:.]+Z$"));
    const qsizetype blank = line.indexOf(QLatin1Char(' '));
    if (blank >= 0 && stamp.match(QStringView(line).left(blank)).hasMatch())
        return QStringView(line).mid(blank + 1).startsWith(prefix);
    return line.startsWith(prefix);
}

void AgentLine::operator()(const QString &line) const
{
    static const QString stayAwake = QStringLiteral("stay-awake {");
    static const QString clipboardReceived = QStringLiteral("clipboard-received {");
    static const QString clipboardAsk = QStringLiteral("clipboard-ask {");
    static const QString claudeCode = QStringLiteral("claude-code {");
    static const QString agentBusy = QStringLiteral("agent-busy {");

    // Every row is tried on every line; the model may go away under any of them.
    if (starts(line, stayAwake) && m_model) {
        if (auto payload = markerPayload(line, stayAwake); payload && m_model->hooks().stayAwake)
            m_model->hooks().stayAwake(*payload);
    }
    if (starts(line, clipboardReceived) && m_model) {
        if (auto payload = markerPayload(line, clipboardReceived); payload && m_model->hooks().clipboardReceived)
            m_model->hooks().clipboardReceived(*payload);
    }
    if (starts(line, clipboardAsk) && m_model && m_model->hooks().clipboardAsk)
        m_model->hooks().clipboardAsk(line);
    if (line.contains(QLatin1String("hub connected")) && m_model) {
        m_model->setConnected(true);
        m_model->clearReplacedLater();
        emit m_model->sessionsReloadWanted();
    }
    if (line.contains(QLatin1String("hub closed")) && m_model)
        m_model->setConnected(false);
    if (starts(line, claudeCode) && m_model) {
        const auto payload = objectFrom(line, line.indexOf(QLatin1Char('{')));
        if (payload && payload->value(QStringLiteral("found")).isBool()) {
            const QJsonValue state = payload->value(QStringLiteral("state"));
            m_model->setClaude(payload->value(QStringLiteral("found")).toBool(),
                               state.isString() ? std::optional<QString>(state.toString()) : std::nullopt);
        }
    }
    if (starts(line, agentBusy) && m_model) {
        const auto payload = objectFrom(line, line.indexOf(QLatin1Char('{')));
        if (payload && payload->value(QStringLiteral("busy")).isBool())
            m_model->setAgentBusy(payload->value(QStringLiteral("busy")).toBool());
    }
    if (line.contains(QLatin1String("closed 4409")) && m_model)
        m_model->replaced();
    if ((line.contains(QLatin1String("closed 4401")) || line.contains(QLatin1String("Unexpected server response: 403")))
        && m_model)
        m_model->revoked();
}

} // namespace zuv
