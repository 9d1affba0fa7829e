#include "base/Build.h"

#include "zuv_version.h"

namespace zuv::Build {

QString number() { return QStringLiteral(ZUV_BUILD); }
QString version() { return QStringLiteral(ZUV_VERSION); }

} // namespace zuv::Build
