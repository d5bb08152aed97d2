#include "avahi_service_browser.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

namespace tellwyn {

namespace {

ServiceInstanceKey instanceKey(AvahiIfIndex interface, AvahiProtocol protocol, const char* name,
                               const char* type, const char* domain) {
    return {interface, protocol, QString::fromUtf8(name), QString::fromUtf8(type), QString::fromUtf8(domain)};
}

QMap<QString, QByteArray> txtValues(AvahiStringList* txt) {
    QMap<QString, QByteArray> values;
    for (AvahiStringList* item = txt; item != nullptr; item = avahi_string_list_get_next(item)) {
        char* key = nullptr;
        char* value = nullptr;
        size_t size = 0;
        if (avahi_string_list_get_pair(item, &key, &value, &size) == 0) {
            values.insert(QString::fromUtf8(key),
                          value != nullptr ? QByteArray(value, static_cast<qsizetype>(size)) : QByteArray());
            avahi_free(key);
            avahi_free(value);
        }
    }
    return values;
}

void resolved(AvahiServiceResolver* resolver, AvahiIfIndex interface, AvahiProtocol protocol,
              AvahiResolverEvent event, const char* name, const char* type, const char* domain,
              const char* hostName, const AvahiAddress* address, uint16_t port, AvahiStringList* txt,
              AvahiLookupResultFlags, void* userdata) {
    auto* backend = static_cast<AvahiServiceBrowserBackend*>(userdata);
    if (event == AVAHI_RESOLVER_FOUND) {
        ResolvedService service;
        service.key = instanceKey(interface, protocol, name, type, domain);
        service.hostName = QString::fromUtf8(hostName);
        char text[AVAHI_ADDRESS_STR_MAX] = {};
        avahi_address_snprint(text, sizeof text, address);
        service.address = QHostAddress(QString::fromLatin1(text));
        if (service.address.isLinkLocal() && service.address.protocol() == QAbstractSocket::IPv6Protocol) {
            service.address.setScopeId(QString::number(interface)); // reachable only through that interface
        }
        service.port = port;
        service.txtRecord = txtValues(txt);
        Q_EMIT backend->serviceResolved(service);
    }
    // An instance that cannot be resolved is left out; the browser reports its removal later.
    avahi_service_resolver_free(resolver);
}

void browsed(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
             AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
             AvahiLookupResultFlags, void* userdata) {
    auto* backend = static_cast<AvahiServiceBrowserBackend*>(userdata);
    AvahiClient* client = avahi_service_browser_get_client(browser);
    switch (event) {
    case AVAHI_BROWSER_NEW:
        avahi_service_resolver_new(client, interface, protocol, name, type, domain, AVAHI_PROTO_UNSPEC,
                                   AvahiLookupFlags(0), resolved, backend);
        break;
    case AVAHI_BROWSER_REMOVE:
        Q_EMIT backend->serviceRemoved(instanceKey(interface, protocol, name, type, domain));
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        Q_EMIT backend->allForNow();
        break;
    case AVAHI_BROWSER_FAILURE:
        Q_EMIT backend->failed(QString::fromUtf8(avahi_strerror(avahi_client_errno(client))));
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        break;
    }
}

void clientChanged(AvahiClient* client, AvahiClientState state, void* userdata) {
    if (state == AVAHI_CLIENT_FAILURE) {
        auto* backend = static_cast<AvahiServiceBrowserBackend*>(userdata);
        Q_EMIT backend->failed(QString::fromUtf8(avahi_strerror(avahi_client_errno(client))));
    }
}

} // namespace

AvahiServiceBrowserBackend::~AvahiServiceBrowserBackend() {
    stop();
}

bool AvahiServiceBrowserBackend::start(const QString& type, const QString& domain) {
    stop();
    int error = 0;
    m_client = avahi_client_new(m_poll.poll(), AvahiClientFlags(0), clientChanged, this, &error);
    if (m_client == nullptr) {
        return false;
    }
    m_browser =
        avahi_service_browser_new(m_client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.toUtf8().constData(),
                                  domain.toUtf8().constData(), AvahiLookupFlags(0), browsed, this);
    if (m_browser == nullptr) {
        stop();
        return false;
    }
    return true;
}

void AvahiServiceBrowserBackend::stop() {
    if (m_client != nullptr) {
        avahi_client_free(m_client); // frees the browser and resolvers with it
    }
    m_client = nullptr;
    m_browser = nullptr;
}

} // namespace tellwyn
