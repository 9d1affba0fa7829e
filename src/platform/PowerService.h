#pragma once

#include <QCoro/QCoroTask>

namespace zuv {

// Whether this session may keep the computer awake, also with the lid closed:
// the permission to take the sleep, idle and lid-switch inhibitors.
class PowerService {
public:
    enum class Status { notRegistered = 0, enabled = 1, requiresApproval = 2, notFound = 3 };

    virtual ~PowerService() = default;
    // With `interactive`, the desktop's authentication agent may ask the person.
    virtual QCoro::Task<Status> check(bool interactive) = 0;
    // In words, when the last check failed for a reason worth telling.
    virtual QString problem() const = 0;
};

} // namespace zuv
