#include "fake_discovery.h"
#include "fake_platform.h"
#include "log_lines.h"
#include "server_log_manager.h"
#include "service_advertiser.h"
#include "virtual_time.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace tellwyn;
using namespace tellwyn::testing;

using TxtRecord = QMap<QString, QByteArray>;
Q_DECLARE_METATYPE(std::optional<QString>)

class TestServiceAdvertiser : public QObject {
    Q_OBJECT

    std::unique_ptr<VirtualTime> time;
    std::unique_ptr<FakeSystemIdentity> identity;
    FakeServicePublisher* publisher = nullptr;
    FakeNetworkPathMonitor* monitor = nullptr;
    std::unique_ptr<ServiceAdvertiser> manager;

    // Publishes and confirms, with the confirmation's main-queue step run.
    void publishConfirmed(quint16 port, const QString& name) {
        manager->publish(port, name);
        Q_EMIT publisher->latest()->didPublish(publisher->latest()->description.name, port);
        VirtualTime::drainEvents();
    }

private Q_SLOTS:
    void init() {
        time = std::make_unique<VirtualTime>();
        identity = std::make_unique<FakeSystemIdentity>();
        identity->computerName = u"lab-host"_s;
        auto ownedPublisher = std::make_unique<FakeServicePublisher>();
        auto ownedMonitor = std::make_unique<FakeNetworkPathMonitor>();
        publisher = ownedPublisher.get();
        monitor = ownedMonitor.get();
        manager = std::make_unique<ServiceAdvertiser>(std::move(ownedPublisher), std::move(ownedMonitor),
                                                      *time, *identity);
    }

    void cleanup() {
        manager.reset();
        VirtualTime::drainEvents();
    }

    void advertisementCarriesNameTypeAndTxtRecord_data() {
        QTest::addColumn<std::optional<QString>>("hostName");
        QTest::addColumn<std::optional<QString>>("computerName");
        QTest::addColumn<QString>("instanceName");
        QTest::addColumn<TxtRecord>("txt");

        QTest::newRow("name given") << std::optional<QString>(u"lab-host"_s)
                                    << std::optional<QString>(u"Office PC"_s) << u"TellwynAgent - Office PC"_s
                                    << TxtRecord{{u"name"_s, "Office PC"},
                                                 {u"hostname"_s, "lab-host"},
                                                 {u"type"_s, "HLVP"}};
        QTest::newRow("padded name is trimmed only in the instance name")
            << std::optional<QString>(u"lab-host"_s) << std::optional<QString>(u"  Lab \n"_s)
            << u"TellwynAgent - Lab"_s
            << TxtRecord{{u"name"_s, "  Lab \n"}, {u"hostname"_s, "lab-host"}, {u"type"_s, "HLVP"}};
        QTest::newRow("white space only falls back to the host name")
            << std::optional<QString>(u"lab-host"_s) << std::optional<QString>(u" \t\n"_s)
            << u"TellwynAgent - lab-host"_s
            << TxtRecord{{u"name"_s, " \t\n"}, {u"hostname"_s, "lab-host"}, {u"type"_s, "HLVP"}};
        QTest::newRow("no name") << std::optional<QString>(u"lab-host"_s) << std::optional<QString>()
                                 << u"TellwynAgent - lab-host"_s
                                 << TxtRecord{{u"hostname"_s, "lab-host"}, {u"type"_s, "HLVP"}};
        QTest::newRow("empty name") << std::optional<QString>(u"lab-host"_s) << std::optional<QString>(u""_s)
                                    << u"TellwynAgent - lab-host"_s
                                    << TxtRecord{{u"hostname"_s, "lab-host"}, {u"type"_s, "HLVP"}};
        QTest::newRow("no host name either")
            << std::optional<QString>() << std::optional<QString>() << u"TellwynAgent - Linux"_s
            << TxtRecord{{u"hostname"_s, "Linux"}, {u"type"_s, "HLVP"}};
        QTest::newRow("non-ASCII name")
            << std::optional<QString>(u"lab-host"_s) << std::optional<QString>(u"Büro Ω"_s)
            << u"TellwynAgent - Büro Ω"_s
            << TxtRecord{{u"name"_s, u"Büro Ω"_s.toUtf8()}, {u"hostname"_s, "lab-host"}, {u"type"_s, "HLVP"}};
    }

    void advertisementCarriesNameTypeAndTxtRecord() {
        QFETCH(std::optional<QString>, hostName);
        QFETCH(std::optional<QString>, computerName);
        QFETCH(QString, instanceName);
        QFETCH(TxtRecord, txt);
        identity->computerName = hostName;

        manager->publish(5905, computerName);

        QCOMPARE(publisher->services.size(), 1);
        const FakePublishedService* service = publisher->latest();
        QCOMPARE(service->publishCalls, 1);
        QCOMPARE(service->description.name, instanceName);
        QCOMPARE(service->description.type, u"_hlvp._tcp"_s);
        QCOMPARE(service->description.domain, u"local."_s);
        QCOMPARE(service->description.port, quint16(5905));
        QCOMPARE(service->description.txtRecord, txt);
        QVERIFY(!manager->isPublished()); // until the responder confirms
    }

    void confirmationShowsTheNameInUseOnTheMainQueue() {
        QSignalSpy nameChanges(manager.get(), &ServiceAdvertiser::publishedServiceNameChanged);
        QSignalSpy portChanges(manager.get(), &ServiceAdvertiser::publishedPortChanged);
        manager->publish(6000, u"Twin"_s);

        // The network had the name already: the responder confirms an alternative.
        Q_EMIT publisher->latest()->didPublish(u"TellwynAgent - Twin #2"_s, 6000);
        QVERIFY(manager->isPublished());
        QVERIFY(manager->publishedServiceName().isEmpty()); // posted, not set in place
        VirtualTime::drainEvents();

        QCOMPARE(manager->publishedServiceName(), u"TellwynAgent - Twin #2"_s);
        QCOMPARE(manager->publishedPort(), quint16(6000));
        QCOMPARE(nameChanges.size(), 1);
        QCOMPARE(portChanges.size(), 1);
    }

    void publishWhilePublishedDoesNothing() {
        publishConfirmed(5905, u"First"_s);
        manager->publish(6001, u"Second"_s);
        QCOMPARE(publisher->services.size(), 1);
        QCOMPARE(manager->publishedServiceName(), u"TellwynAgent - First"_s);
        QCOMPARE(manager->publishedPort(), quint16(5905));
    }

    void stopWithdrawsAndClears() {
        publishConfirmed(5905, u"Desk"_s);
        QPointer<FakePublishedService> service = publisher->latest();
        manager->stop();
        QVERIFY(service.isNull() || service->stopped); // withdrawn and let go
        QVERIFY(!manager->isPublished());
        VirtualTime::drainEvents();
        QVERIFY(manager->publishedServiceName().isEmpty());
        QCOMPARE(manager->publishedPort(), quint16(0));

        manager->publish(5906, u"Desk"_s); // idle again: a new publish goes out
        QCOMPARE(publisher->services.size(), 2);
    }

    void stopBeforeConfirmationLeavesThePublicationAlone() {
        manager->publish(5905, u"Desk"_s);
        manager->stop();
        FakePublishedService* service = publisher->latest();
        QVERIFY(service != nullptr);
        QVERIFY(!service->stopped);

        Q_EMIT service->didPublish(service->description.name, 5905);
        VirtualTime::drainEvents();
        QVERIFY(manager->isPublished());
        QCOMPARE(manager->publishedServiceName(), u"TellwynAgent - Desk"_s);
    }

    void failuresClearAndAllowTheNextPublish_data() {
        QTest::addColumn<bool>("confirmedFirst");
        QTest::newRow("not published") << false;
        QTest::newRow("ended after publishing") << true;
    }

    void failuresClearAndAllowTheNextPublish() {
        QFETCH(bool, confirmedFirst);
        manager->publish(5905, u"Desk"_s);
        FakePublishedService* service = publisher->latest();
        if (confirmedFirst) {
            Q_EMIT service->didPublish(service->description.name, 5905);
            VirtualTime::drainEvents();
            QCOMPARE(manager->publishedPort(), quint16(5905));
            Q_EMIT service->didStop();
        } else {
            Q_EMIT service->didNotPublish();
        }
        QVERIFY(!manager->isPublished());
        VirtualTime::drainEvents();
        QVERIFY(manager->publishedServiceName().isEmpty());
        QCOMPARE(manager->publishedPort(), quint16(0));

        manager->publish(5907, u"Desk"_s);
        QCOMPARE(publisher->services.size(), 2);
        QCOMPARE(publisher->latest()->description.port, quint16(5907));
    }

    void pathChangeWhilePublishedRepublishesOneSecondLater() {
        identity->computerName = u"old-host"_s;
        publishConfirmed(5905, u"Desk"_s);
        QPointer<FakePublishedService> first = publisher->latest();

        identity->computerName = u"new-host"_s;
        monitor->change();
        VirtualTime::drainEvents(); // the posted republish, which stops the service
        VirtualTime::drainEvents(); // the clearing step that stop posted
        QVERIFY(first.isNull() || first->stopped);
        QVERIFY(!manager->isPublished());
        QVERIFY(manager->publishedServiceName().isEmpty());
        QCOMPARE(manager->publishedPort(), quint16(0));

        time->advance(999ms);
        QCOMPARE(publisher->services.size(), 1);
        time->advance(1ms);
        QCOMPARE(publisher->services.size(), 2);
        const FakePublishedService* second = publisher->latest();
        QCOMPARE(second->description.port, quint16(5905));
        QCOMPARE(second->description.name, u"TellwynAgent - Desk"_s);
        QCOMPARE(second->description.txtRecord.value(u"name"_s), QByteArray("Desk"));
        QCOMPARE(second->description.txtRecord.value(u"hostname"_s), QByteArray("new-host")); // read afresh
    }

    void aStopCancelsAWaitingRepublish() {
        publishConfirmed(5905, u"Desk"_s);
        monitor->change();
        VirtualTime::drainEvents();
        manager->stop(); // the server stops within the republish delay
        time->advance(5s);
        QCOMPARE(publisher->services.size(), 1);
    }

    void aResponderThatGoesAwayAndReturnsIsFollowed() {
        ServerLogManager::shared().setEchoToStandardOutput(false);
        ServerLogManager::shared().clearLogs();
        publishConfirmed(5905, u"Desk"_s);
        QPointer<FakePublishedService> service = publisher->latest();
        Q_EMIT service->responderLost();
        VirtualTime::drainEvents();
        QCOMPARE(manager->publishedPort(), quint16(0));
        Q_EMIT service->responderReturned(u"TellwynAgent - Desk #2"_s, 5905);
        VirtualTime::drainEvents();
        QCOMPARE(manager->publishedServiceName(), u"TellwynAgent - Desk #2"_s);
        QCOMPARE(manager->publishedPort(), quint16(5905));
        QCOMPARE(loggedLines(),
                 QStringList(
                     {u"[WARN] DNS-SD responder went away: the agent is advertised again when it returns"_s,
                      u"[INFO] DNS-SD responder is back: advertising \"TellwynAgent - Desk #2\" again"_s}));
        manager->stop(); // still withdrawn when the server stops
        QVERIFY(service.isNull() || service->stopped);
    }

    void pathChangeWhileNotPublishedChangesNothing() {
        monitor->change(); // idle
        VirtualTime::drainEvents();
        manager->publish(5905, u"Desk"_s);
        monitor->change(); // publishing, not yet confirmed
        VirtualTime::drainEvents();
        time->advance(5s);
        QCOMPARE(publisher->services.size(), 1);
        QVERIFY(!publisher->latest()->stopped);
    }
};

QTEST_GUILESS_MAIN(TestServiceAdvertiser)
#include "tst_service_advertiser.moc"
