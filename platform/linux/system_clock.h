#pragma once

#include "clock.h"

namespace tellwyn {

class SystemClock final : public Clock {
public:
    QDateTime now() const override;
};

// Scheduler on QTimer; timers are precise so that the agent's intervals hold to the millisecond.
class QtScheduler final : public Scheduler {
public:
    void runAfter(std::chrono::milliseconds delay, QObject* context, std::function<void()> fn) override;
    std::unique_ptr<ScheduledTimer> oneShot(std::chrono::milliseconds delay, QObject* context,
                                            std::function<void()> fn) override;
    std::unique_ptr<ScheduledTimer> repeating(std::chrono::milliseconds interval, QObject* context,
                                              std::function<void()> fn) override;
};

} // namespace tellwyn
