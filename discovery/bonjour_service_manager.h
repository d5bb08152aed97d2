#pragma once

#include <QObject>
#include <QString>

namespace tellwyn {

// Advertises the running server on the local network by DNS-SD.
class BonjourServiceManager final : public QObject {
    Q_OBJECT
public:
    static BonjourServiceManager& shared();

    void publish(quint16 port, const QString& computerName);
    void stop();

private:
    BonjourServiceManager() = default;
};

} // namespace tellwyn
