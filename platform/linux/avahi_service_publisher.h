#pragma once

#include "service_publisher.h"

namespace tellwyn {

// Advertisements with the Avahi daemon on the system bus, run on the Qt event loop of the calling
// thread. Each advertisement has its own connection to the daemon, made when it is published, so
// a daemon that was missing at one publish is used by the next one once it has started.
class AvahiServicePublisher final : public ServicePublisher {
public:
    std::unique_ptr<PublishedService> createService(const ServiceDescription& description) override;
};

} // namespace tellwyn
