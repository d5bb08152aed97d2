#pragma once

#include <QDateTime>
#include <chrono>
#include <functional>
#include <memory>

class QObject;

namespace tellwyn {

// Wall-clock time as the agent reads it. Every "now" of the agent goes through here so that
// tests can move time by hand.
class Clock {
public:
    virtual ~Clock() = default;
    virtual QDateTime now() const = 0;
};

// A pending timer. Cancelling, or destroying the handle, guarantees the callback will not run again.
class ScheduledTimer {
public:
    virtual ~ScheduledTimer() = default;
    virtual void cancel() = 0;
    virtual bool isActive() const = 0;
};

// Every delay and interval of the agent goes through a scheduler. Callbacks run on the thread of
// `context` and never after `context` has been destroyed.
class Scheduler {
public:
    virtual ~Scheduler() = default;

    // Fire-and-forget: runs `fn` once after `delay`.
    virtual void runAfter(std::chrono::milliseconds delay, QObject* context, std::function<void()> fn) = 0;

    // Runs `fn` once after `delay`, unless the returned handle is cancelled or destroyed first.
    virtual std::unique_ptr<ScheduledTimer> oneShot(std::chrono::milliseconds delay, QObject* context,
                                                    std::function<void()> fn) = 0;

    // Runs `fn` first after `interval`, then every `interval`, until the handle is cancelled or destroyed.
    virtual std::unique_ptr<ScheduledTimer> repeating(std::chrono::milliseconds interval, QObject* context,
                                                      std::function<void()> fn) = 0;
};

} // namespace tellwyn
