#pragma once

// Fakes of the DNS-SD responder and the network-path monitor, for unit tests. The test plays the
// responder: it confirms, refuses or ends each advertisement by hand.

#include "network_path_monitor.h"
#include "service_publisher.h"

#include <QPointer>
#include <functional>
#include <memory>

namespace tellwyn::testing {

class FakePublishedService final : public PublishedService {
    Q_OBJECT
public:
    explicit FakePublishedService(ServiceDescription d) : description(std::move(d)) {}
    void publish() override { ++publishCalls; }
    void stop() override { stopped = true; }

    ServiceDescription description;
    int publishCalls = 0;
    bool stopped = false;
};

class FakeServicePublisher final : public ServicePublisher {
public:
    std::unique_ptr<PublishedService> createService(const ServiceDescription& description) override {
        auto service = std::make_unique<FakePublishedService>(description);
        services.append(service.get());
        return service;
    }
    // Every advertisement created so far; an entry turns null once the manager lets it go.
    QList<QPointer<FakePublishedService>> services;

    FakePublishedService* latest() const {
        return services.isEmpty() ? nullptr : services.constLast().data();
    }
};

// Reports path changes when the test calls change(), from the test's thread.
class FakeNetworkPathMonitor final : public NetworkPathMonitor {
public:
    void start(std::function<void()> onPathUpdate) override {
        m_onPathUpdate = std::move(onPathUpdate);
        m_onPathUpdate(); // the first path seen
    }
    void change() { m_onPathUpdate(); }

private:
    std::function<void()> m_onPathUpdate;
};

} // namespace tellwyn::testing
