#pragma once

#include <QString>

namespace zuv {

// What this build is, as the hub and the agent are told.
class Updates {
public:
    // The build number (CMake cache variable ZUV_BUILD_NUMBER).
    static QString build();
    // The version, as "major.minor.patch" (the CMake project version).
    static QString shortVersion();
};

} // namespace zuv
