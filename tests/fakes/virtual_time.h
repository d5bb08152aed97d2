#pragma once

#include "clock.h"

#include <QPointer>
#include <map>
#include <memory>
#include <optional>

namespace tellwyn::testing {

// A clock and scheduler whose time moves only when a test calls advance(). Due timers fire in
// order of their due time (then of creation), each at its own instant, and the work they post to
// the event loop is run before the next one fires, as it would be in real time.
class VirtualTime final : public Clock, public Scheduler {
public:
    explicit VirtualTime(QDateTime start = defaultStart());
    ~VirtualTime() override;

    static QDateTime defaultStart();

    QDateTime now() const override { return m_now; }
    void runAfter(std::chrono::milliseconds delay, QObject* context, std::function<void()> fn) override;
    std::unique_ptr<ScheduledTimer> oneShot(std::chrono::milliseconds delay, QObject* context,
                                            std::function<void()> fn) override;
    std::unique_ptr<ScheduledTimer> repeating(std::chrono::milliseconds interval, QObject* context,
                                              std::function<void()> fn) override;

    void advance(std::chrono::milliseconds duration);
    // Timers that have not fired (one-shot) or not been cancelled (repeating).
    int pendingTimerCount() const;

    // Runs everything posted to the event loop, including work that posted work posts.
    static void drainEvents();

    struct Entry {
        qint64 dueMs;
        std::optional<qint64> intervalMs;
        QPointer<QObject> context;
        bool hasContext;
        std::function<void()> fn;
    };

private:
    friend class VirtualTimer;
    quint64 add(std::chrono::milliseconds delay, std::optional<std::chrono::milliseconds> interval,
                QObject* context, std::function<void()> fn);

    QDateTime m_now;
    quint64 m_nextId = 1;
    std::shared_ptr<std::map<quint64, Entry>> m_entries = std::make_shared<std::map<quint64, Entry>>();
};

} // namespace tellwyn::testing
