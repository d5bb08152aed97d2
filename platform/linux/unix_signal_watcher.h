#pragma once

#include <QObject>

class QSocketNotifier;

namespace tellwyn {

// Turns SIGINT and SIGTERM into a signal on the event loop (self-pipe), so that the agent ends
// through its ordinary termination path instead of dying mid-step. Used by the
// agent and the viewer.
class UnixSignalWatcher final : public QObject {
    Q_OBJECT
public:
    explicit UnixSignalWatcher(QObject* parent = nullptr);
    ~UnixSignalWatcher() override;

Q_SIGNALS:
    void terminationRequested(int signalNumber);

private:
    QSocketNotifier* m_notifier = nullptr;
};

} // namespace tellwyn
