#pragma once

#include <QString>

namespace zuv::Paths {

// $XDG_DATA_HOME/Zuv: the app's own data (clip store, work folder, sockets).
QString support();
// $XDG_STATE_HOME/Zuv/logs: app.log and the children's logs.
QString logs();
// $XDG_STATE_HOME/Zuv/DiagnosticReports: crash records and reports.
QString diagnosticReports();
// $XDG_CONFIG_HOME/Zuv: defaults.json.
QString config();
QString defaultsFile();
// $XDG_RUNTIME_DIR (or a private folder in /tmp): the single-instance lock and socket.
QString runtime();

// The installation: <prefix>/bin/zuv, <prefix>/libexec/zuv, <prefix>/share/zuv/agent.
// A build tree has the same shape.
QString prefix();
QString helpers();
QString agentRoot();

// Makes the folder (and its parents); false when it cannot.
bool ensure(const QString &folder);

} // namespace zuv::Paths
