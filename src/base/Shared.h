#pragma once

#include <QtGlobal>

namespace zuv {

// The process-wide instance of T, reached as T::shared(). main.cpp sets it; tests
// build their own instances and leave it alone.
template<class T>
class Shared {
public:
    static T &shared()
    {
        Q_ASSERT(s_instance);
        return *s_instance;
    }
    static void setShared(T *instance) { s_instance = instance; }

private:
    inline static T *s_instance = nullptr;
};

} // namespace zuv
