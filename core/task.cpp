#include "task.h"

#include "clock.h"

namespace tellwyn {

std::shared_ptr<Task> Task::create() {
    return std::shared_ptr<Task>(new Task);
}

Task::~Task() = default;

void Task::cancel() {
    if (m_cancelled) {
        return;
    }
    m_cancelled = true;
    if (m_sleep) {
        m_sleep.reset();
        auto next = std::move(m_afterSleep);
        m_afterSleep = nullptr;
        if (next) {
            next();
        }
    }
}

void Task::finish() {
    if (m_finished) {
        return;
    }
    m_finished = true;
    auto observers = std::move(m_finishObservers);
    m_finishObservers.clear();
    for (auto& observer : observers) {
        observer();
    }
}

void Task::abandon() {
    m_sleep.reset();
    // Moved out first: destroying a continuation may drop the last other reference to this task.
    auto afterSleep = std::move(m_afterSleep);
    auto observers = std::move(m_finishObservers);
    m_afterSleep = nullptr;
    m_finishObservers.clear();
}

void Task::whenFinished(std::function<void()> fn) {
    if (m_finished) {
        fn();
        return;
    }
    m_finishObservers.push_back(std::move(fn));
}

void Task::sleep(Scheduler& scheduler, std::chrono::milliseconds duration, QObject* context,
                 std::function<void()> next) {
    if (m_cancelled) {
        next();
        return;
    }
    m_afterSleep = std::move(next);
    // The timer holds the task weakly: a task nobody keeps any more simply never wakes.
    m_sleep = scheduler.oneShot(duration, context, [weak = weak_from_this()] {
        if (auto self = weak.lock()) {
            self->m_sleep.reset();
            auto after = std::move(self->m_afterSleep);
            self->m_afterSleep = nullptr;
            if (after) {
                after();
            }
        }
    });
}

} // namespace tellwyn
