#include "install/Updates.h"

namespace zuv {

QString Updates::build() { return QStringLiteral(ZUV_BUILD); }
QString Updates::shortVersion() { return QStringLiteral(ZUV_VERSION); }

} // namespace zuv
