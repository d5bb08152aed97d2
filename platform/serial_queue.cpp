#include "serial_queue.h"

#include "alternate_signal_stack.h"

namespace tellwyn {

SerialQueue::SerialQueue(const QString& label, QThread::Priority priority) : m_worker(new QObject) {
    m_thread.setObjectName(label);
    m_worker->moveToThread(&m_thread);
    QObject::connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    QMetaObject::invokeMethod(m_worker, &ensureAlternateSignalStack, Qt::QueuedConnection);
    m_thread.start(priority);
}

SerialQueue::~SerialQueue() {
    // Jobs already queued still run; then the thread ends.
    m_thread.quit();
    m_thread.wait();
}

void SerialQueue::async(std::function<void()> job) {
    // Queued calls to one object run in submission order on its thread.
    QMetaObject::invokeMethod(m_worker, std::move(job), Qt::QueuedConnection);
}

} // namespace tellwyn
