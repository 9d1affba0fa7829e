#pragma once

namespace zuv {

// The count shown on the app's launcher icon (and, once the tray exists, in its
// tooltip): how many things wait on the person. Zero hides it.
class Badge {
public:
    virtual ~Badge() = default;
    virtual void setCount(int count) = 0;
    virtual int count() const = 0;
};

} // namespace zuv
