#include "platform/linux/SourceUpdater.h"

#include "base/Log.h"

namespace zuv {

void SourceUpdater::checkForUpdates()
{
    log(QStringLiteral("Update required: this build is older than the hub accepts. Update the checkout and run "
                       "scripts/run to build and start the new one."));
}

void SourceUpdater::checkInBackground() { checkForUpdates(); }

} // namespace zuv
