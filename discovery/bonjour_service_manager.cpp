#include "bonjour_service_manager.h"

namespace tellwyn {

BonjourServiceManager& BonjourServiceManager::shared() {
    static BonjourServiceManager* const instance = new BonjourServiceManager;
    return *instance;
}

// Advertising on Avahi is not wired yet: publishing and stopping do nothing.
void BonjourServiceManager::publish(quint16, const QString&) {}

void BonjourServiceManager::stop() {}

} // namespace tellwyn
