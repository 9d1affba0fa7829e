#pragma once

#include <QString>

namespace zuv::Build {

// The build number (CMake cache variable ZUV_BUILD_NUMBER).
QString number();
// The version, as "major.minor.patch" (the CMake project version).
QString version();

} // namespace zuv::Build
