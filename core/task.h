#pragma once

#include <QObject>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace tellwyn {

class Scheduler;
class ScheduledTimer;

// A unit of asynchronous work of the agent core, written as a chain of callbacks on the main
// thread. It can be cancelled from outside; work in it checks `isCancelled()` at its await
// points, and a sleep ends early when the task is cancelled. Observers learn when it finishes.
class Task final : public std::enable_shared_from_this<Task> {
public:
    static std::shared_ptr<Task> create();
    ~Task();

    void cancel();
    bool isCancelled() const { return m_cancelled; }
    bool isFinished() const { return m_finished; }

    // Marks the task finished and tells the observers, once.
    void finish();
    // Runs `fn` when the task finishes (at once when it already has).
    void whenFinished(std::function<void()> fn);

    // Lets go of the pending sleep and observers without running them: for an owner that goes
    // away, whose continuations would otherwise keep the task (and what they hold) alive.
    void abandon();

    // Waits `duration`, then runs `next` on `context`'s thread. A cancellation during the wait
    // runs `next` at once, as a cancelled sleep returns early; `next` checks isCancelled().
    void sleep(Scheduler& scheduler, std::chrono::milliseconds duration, QObject* context,
               std::function<void()> next);

private:
    Task() = default;

    bool m_cancelled = false;
    bool m_finished = false;
    std::vector<std::function<void()>> m_finishObservers;
    std::unique_ptr<ScheduledTimer> m_sleep;
    std::function<void()> m_afterSleep;
};

using TaskPtr = std::shared_ptr<Task>;

} // namespace tellwyn
