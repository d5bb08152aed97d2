#include "system_clock.h"

#include <QPointer>
#include <QTimer>

namespace tellwyn {

QDateTime SystemClock::now() const {
    return QDateTime::currentDateTime();
}

namespace {

class QtTimer final : public ScheduledTimer {
public:
    QtTimer(std::chrono::milliseconds interval, bool singleShot, QObject* context, std::function<void()> fn)
        : m_timer(new QTimer) {
        m_timer->setTimerType(Qt::PreciseTimer);
        m_timer->setSingleShot(singleShot);
        m_timer->setInterval(interval);
        if (context != nullptr) {
            m_timer->moveToThread(context->thread());
        }
        QObject::connect(m_timer, &QTimer::timeout, context,
                         [guard = QPointer<QObject>(context), fn = std::move(fn)] {
                             if (guard) {
                                 fn();
                             }
                         });
        m_timer->start();
    }

    // The handle may be dropped from inside its own callback, so the QTimer goes on the event loop.
    ~QtTimer() override {
        m_timer->stop();
        m_timer->deleteLater();
    }

    void cancel() override { m_timer->stop(); }
    bool isActive() const override { return m_timer->isActive(); }

private:
    QTimer* m_timer;
};

} // namespace

void QtScheduler::runAfter(std::chrono::milliseconds delay, QObject* context, std::function<void()> fn) {
    QTimer::singleShot(delay, Qt::PreciseTimer, context, std::move(fn));
}

std::unique_ptr<ScheduledTimer> QtScheduler::oneShot(std::chrono::milliseconds delay, QObject* context,
                                                     std::function<void()> fn) {
    return std::make_unique<QtTimer>(delay, true, context, std::move(fn));
}

std::unique_ptr<ScheduledTimer> QtScheduler::repeating(std::chrono::milliseconds interval, QObject* context,
                                                       std::function<void()> fn) {
    return std::make_unique<QtTimer>(interval, false, context, std::move(fn));
}

} // namespace tellwyn
