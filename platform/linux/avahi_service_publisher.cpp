#include "avahi_service_publisher.h"

#include "avahi_qt_poll.h"

#include <QTextBoundaryFinder>
#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

namespace tellwyn {

namespace {

// An instance name is one DNS label, at most 63 bytes of UTF-8: a longer one is cut after the
// last whole character that fits, so that a long computer name is still advertised.
QString fitToLabel(const QString& name) {
    constexpr qsizetype maxBytes = 63;
    if (name.toUtf8().size() <= maxBytes) {
        return name;
    }
    QTextBoundaryFinder characters(QTextBoundaryFinder::Grapheme, name);
    qsizetype cut = 0;
    for (qsizetype next = characters.toNextBoundary(); next != -1; next = characters.toNextBoundary()) {
        if (QStringView(name).left(next).toUtf8().size() > maxBytes) {
            break;
        }
        cut = next;
    }
    return QStringView(name).left(cut).trimmed().toString();
}

class AvahiPublishedService final : public PublishedService {
public:
    explicit AvahiPublishedService(ServiceDescription description)
        : m_description(std::move(description)), m_name(fitToLabel(m_description.name)) {}
    ~AvahiPublishedService() override { release(); }

    void publish() override {
        int error = 0;
        m_client = avahi_client_new(m_poll.poll(), AvahiClientFlags(0),
                                    &AvahiPublishedService::clientCallback, this, &error);
        if (m_client == nullptr) {
            fail(); // no daemon to talk to: the advertisement fails like any other
        }
    }

    void stop() override {
        m_stopped = true;
        release();
    }

private:
    static void clientCallback(AvahiClient* client, AvahiClientState state, void* userdata) {
        static_cast<AvahiPublishedService*>(userdata)->clientChanged(client, state);
    }
    static void groupCallback(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) {
        static_cast<AvahiPublishedService*>(userdata)->groupChanged(group, state);
    }

    // Called from inside avahi_client_new too, before m_client is set: use `client`.
    void clientChanged(AvahiClient* client, AvahiClientState state) {
        switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            if (m_group == nullptr || avahi_entry_group_is_empty(m_group)) {
                addService(client);
            }
            break;
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_S_REGISTERING:
            // The daemon is renaming the host; the records go back once it runs again.
            if (m_group != nullptr) {
                avahi_entry_group_reset(m_group);
            }
            break;
        case AVAHI_CLIENT_FAILURE:
            if (m_confirmed && avahi_client_errno(client) == AVAHI_ERR_DISCONNECTED) {
                waitForTheResponder();
            } else {
                fail();
            }
            break;
        case AVAHI_CLIENT_CONNECTING:
            break;
        }
    }

    void groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state) {
        switch (state) {
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
            if (m_confirmed) {
                report([this, name = m_name, port = m_description.port] {
                    Q_EMIT responderReturned(name, port);
                });
            } else {
                m_confirmed = true;
                report([this, name = m_name, port = m_description.port] { Q_EMIT didPublish(name, port); });
            }
            break;
        case AVAHI_ENTRY_GROUP_COLLISION:
            // Someone else announces this name: move on to the next alternative name.
            nextName();
            avahi_entry_group_reset(group);
            addService(avahi_entry_group_get_client(group));
            break;
        case AVAHI_ENTRY_GROUP_FAILURE:
            fail();
            break;
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
            break;
        }
    }

    void nextName() {
        char* alternative = avahi_alternative_service_name(m_name.toUtf8().constData());
        m_name = QString::fromUtf8(alternative);
        avahi_free(alternative);
    }

    void addService(AvahiClient* client) {
        if (m_group == nullptr) {
            m_group = avahi_entry_group_new(client, &AvahiPublishedService::groupCallback, this);
            if (m_group == nullptr) {
                fail();
                return;
            }
        }
        AvahiStringList* txt = nullptr;
        for (auto it = m_description.txtRecord.cbegin(); it != m_description.txtRecord.cend(); ++it) {
            txt = avahi_string_list_add_pair_arbitrary(
                txt, it.key().toUtf8().constData(), reinterpret_cast<const uint8_t*>(it.value().constData()),
                static_cast<size_t>(it.value().size()));
        }
        const QByteArray type = m_description.type.toUtf8();
        const QByteArray domain = m_description.domain.toUtf8();
        int result = AVAHI_ERR_COLLISION;
        while (result == AVAHI_ERR_COLLISION) {
            result = avahi_entry_group_add_service_strlst(m_group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                          AvahiPublishFlags(0), m_name.toUtf8().constData(),
                                                          type.constData(), domain.constData(), nullptr,
                                                          m_description.port, txt);
            if (result == AVAHI_ERR_COLLISION) {
                nextName(); // a service of this process or of the host has the name already
            }
        }
        avahi_string_list_free(txt);
        if (result < 0 || avahi_entry_group_commit(m_group) < 0) {
            fail();
        }
    }

    // The daemon went away after the announcement was made (a restart, an upgrade). A client that
    // does not fail waits for it to come back on the bus, and the service is added again then.
    void waitForTheResponder() {
        report([this] { Q_EMIT responderLost(); });
        // Avahi objects must not be freed inside their own callbacks.
        QMetaObject::invokeMethod(
            this,
            [this] {
                release();
                if (m_stopped) {
                    return;
                }
                int error = 0;
                m_client = avahi_client_new(m_poll.poll(), AVAHI_CLIENT_NO_FAIL,
                                            &AvahiPublishedService::clientCallback, this, &error);
                if (m_client == nullptr) {
                    fail();
                }
            },
            Qt::QueuedConnection);
    }

    void fail() {
        if (m_failed) {
            return;
        }
        m_failed = true;
        report([this] {
            if (m_confirmed) {
                Q_EMIT didStop();
            } else {
                Q_EMIT didNotPublish();
            }
        });
        // Avahi objects must not be freed inside their own callbacks.
        QMetaObject::invokeMethod(
            this, [this] { release(); }, Qt::QueuedConnection);
    }

    // Results are delivered from the event loop, never from inside publish() or a callback.
    void report(std::function<void()> emitResult) {
        QMetaObject::invokeMethod(
            this,
            [this, emitResult = std::move(emitResult)] {
                if (!m_stopped) {
                    emitResult();
                }
            },
            Qt::QueuedConnection);
    }

    void release() {
        if (m_client != nullptr) {
            avahi_client_free(m_client); // frees the entry group with it
        }
        m_client = nullptr;
        m_group = nullptr;
    }

    ServiceDescription m_description;
    QString m_name;
    AvahiQtPoll m_poll;
    AvahiClient* m_client = nullptr;
    AvahiEntryGroup* m_group = nullptr;
    bool m_confirmed = false;
    bool m_stopped = false;
    bool m_failed = false;
};

} // namespace

std::unique_ptr<PublishedService>
AvahiServicePublisher::createService(const ServiceDescription& description) {
    return std::make_unique<AvahiPublishedService>(description);
}

} // namespace tellwyn
