#include "base/Ids.h"

#include <QUuid>

namespace zuv::Ids {

namespace {
QString uuidHex() { return QUuid::createUuid().toString(QUuid::Id128).toLower(); }
} // namespace

QString conversation() { return QLatin1Char('c') + uuidHex().left(15); }
QString message() { return QLatin1Char('m') + uuidHex().left(11); }

} // namespace zuv::Ids
