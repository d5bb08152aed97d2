#pragma once

#include <QObject>
#include <QThread>
#include <functional>

namespace tellwyn {

// One worker thread that runs its jobs one at a time, in the order they were submitted.
class SerialQueue final {
public:
    // `priority` stands for a dispatch queue's quality of service: user initiated work runs
    // above normal priority, utility work below.
    explicit SerialQueue(const QString& label, QThread::Priority priority = QThread::InheritPriority);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> job);
    QString label() const { return m_thread.objectName(); }

private:
    QThread m_thread;
    QObject* m_worker;
};

} // namespace tellwyn
