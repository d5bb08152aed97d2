#include "virtual_time.h"

#include <QCoreApplication>

namespace tellwyn::testing {

class VirtualTimer final : public ScheduledTimer {
public:
    VirtualTimer(std::weak_ptr<std::map<quint64, VirtualTime::Entry>> entries, quint64 id)
        : m_entries(std::move(entries)), m_id(id) {}
    ~VirtualTimer() override { cancel(); }

    void cancel() override {
        if (auto entries = m_entries.lock()) {
            entries->erase(m_id);
        }
    }
    bool isActive() const override {
        const auto entries = m_entries.lock();
        return entries && entries->contains(m_id);
    }

private:
    std::weak_ptr<std::map<quint64, VirtualTime::Entry>> m_entries;
    quint64 m_id;
};

VirtualTime::VirtualTime(QDateTime start) : m_now(std::move(start)) {
}

VirtualTime::~VirtualTime() = default;

QDateTime VirtualTime::defaultStart() {
    return QDateTime(QDate(2026, 3, 14), QTime(15, 4, 5), Qt::UTC);
}

quint64 VirtualTime::add(std::chrono::milliseconds delay, std::optional<std::chrono::milliseconds> interval,
                         QObject* context, std::function<void()> fn) {
    const quint64 id = m_nextId++;
    Entry entry{m_now.toMSecsSinceEpoch() + delay.count(),
                interval ? std::optional<qint64>(interval->count()) : std::nullopt, context,
                context != nullptr, std::move(fn)};
    m_entries->emplace(id, std::move(entry));
    return id;
}

void VirtualTime::runAfter(std::chrono::milliseconds delay, QObject* context, std::function<void()> fn) {
    add(delay, std::nullopt, context, std::move(fn));
}

std::unique_ptr<ScheduledTimer> VirtualTime::oneShot(std::chrono::milliseconds delay, QObject* context,
                                                     std::function<void()> fn) {
    return std::make_unique<VirtualTimer>(m_entries, add(delay, std::nullopt, context, std::move(fn)));
}

std::unique_ptr<ScheduledTimer> VirtualTime::repeating(std::chrono::milliseconds interval, QObject* context,
                                                       std::function<void()> fn) {
    return std::make_unique<VirtualTimer>(m_entries, add(interval, interval, context, std::move(fn)));
}

int VirtualTime::pendingTimerCount() const {
    return static_cast<int>(m_entries->size());
}

void VirtualTime::drainEvents() {
    QCoreApplication::sendPostedEvents();
}

void VirtualTime::advance(std::chrono::milliseconds duration) {
    const qint64 target = m_now.toMSecsSinceEpoch() + duration.count();
    drainEvents();
    for (;;) {
        auto next = m_entries->end();
        for (auto it = m_entries->begin(); it != m_entries->end(); ++it) {
            if (it->second.dueMs <= target &&
                (next == m_entries->end() || it->second.dueMs < next->second.dueMs)) {
                next = it;
            }
        }
        if (next == m_entries->end()) {
            break;
        }
        m_now = QDateTime::fromMSecsSinceEpoch(next->second.dueMs, m_now.timeSpec());
        std::function<void()> fn = next->second.fn;
        const bool alive = !next->second.hasContext || !next->second.context.isNull();
        if (next->second.intervalMs && alive) {
            next->second.dueMs += *next->second.intervalMs;
        } else {
            m_entries->erase(next);
        }
        if (alive) {
            fn();
        }
        drainEvents();
    }
    m_now = QDateTime::fromMSecsSinceEpoch(target, m_now.timeSpec());
    drainEvents();
}

} // namespace tellwyn::testing
