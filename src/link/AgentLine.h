#pragma once

#include <QPointer>
#include <QString>

namespace zuv {

class AppModel;

// The reader of the agent's output: each line is tested for fixed markers, in a
// fixed order, and every marker that matches has its effect. Everything else is
// only log.
class AgentLine {
public:
    explicit AgentLine(AppModel &model);

    void operator()(const QString &line) const;

    // Whether `line` begins with `prefix`, directly or after one leading UTC time
    // stamp and one blank.
    static bool starts(const QString &line, QStringView prefix);

private:
    QPointer<AppModel> m_model;
};

} // namespace zuv
