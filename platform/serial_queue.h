#pragma once

#include <QObject>
#include <QThread>

#include <functional>

namespace tellwyn {

// One worker thread that runs its jobs one at a time, in the order they were submitted.
class SerialQueue final {
public:
    explicit SerialQueue(const QString& label);
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
