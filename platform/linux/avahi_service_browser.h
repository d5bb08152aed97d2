#pragma once

#include "avahi_qt_poll.h"
#include "service_browser_backend.h"

struct AvahiClient;
struct AvahiServiceBrowser;

namespace tellwyn {

// Browses and resolves with the Avahi daemon on the system bus, on the caller's Qt event loop.
class AvahiServiceBrowserBackend final : public ServiceBrowserBackend {
    Q_OBJECT
public:
    using ServiceBrowserBackend::ServiceBrowserBackend;
    ~AvahiServiceBrowserBackend() override;

    bool start(const QString& type, const QString& domain) override;
    void stop() override;

private:
    AvahiQtPoll m_poll;
    AvahiClient* m_client = nullptr;
    AvahiServiceBrowser* m_browser = nullptr;
};

} // namespace tellwyn
