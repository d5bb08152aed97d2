// A desktop portal for tests: answers the ScreenCast and RemoteDesktop calls the agent makes the
// way xdg-desktop-portal does (a request object per call, the answer as its Response signal) and
// prints each call it gets, one line each, for the test to read.
//
//   fake_xdg_portal [--start-answer CODE] [--source-types BITS] [--device-types BITS]
//
// CODE is what the user "does" in the dialog behind Start: 0 approves, 1 cancels.

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QStringList>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

const QString rootPath = u"/org/freedesktop/portal/desktop"_s;

class FakePortal final : public QDBusVirtualObject {
public:
    uint startAnswer = 0;
    uint sourceTypes = 7;
    uint deviceTypes = 7;

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QString method = message.member();
        const QVariantList arguments = message.arguments();
        if (method == u"Get"_s && arguments.size() == 2) {
            const QString property = arguments.at(1).toString();
            const uint value = property == u"AvailableSourceTypes"_s   ? sourceTypes
                               : property == u"AvailableDeviceTypes"_s ? deviceTypes
                                                                       : 2;
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(value))));
            return true;
        }
        if (message.interface() == u"org.freedesktop.portal.Session"_s && method == u"Close"_s) {
            print(u"Close %1"_s.arg(message.path()));
            connection.send(message.createReply());
            return true;
        }
        if (arguments.isEmpty()) {
            return false;
        }
        const QVariantMap options = qdbus_cast<QVariantMap>(arguments.constLast());
        QString sender = message.service().mid(1);
        sender.replace(u'.', u'_');
        const QString requestPath =
            u"%1/request/%2/%3"_s.arg(rootPath, sender, options.value(u"handle_token"_s).toString());
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(requestPath))));

        uint code = 0;
        QVariantMap results;
        if (method == u"CreateSession"_s) {
            const QString session = u"%1/session/%2/%3"_s.arg(
                rootPath, sender, options.value(u"session_handle_token"_s).toString());
            results.insert(u"session_handle"_s, session);
            print(u"CreateSession %1 %2"_s.arg(message.interface(), session));
        } else if (method == u"SelectSources"_s || method == u"SelectDevices"_s) {
            print(u"%1 types=%2 persist_mode=%3 restore_token=%4"_s.arg(
                method, options.value(u"types"_s).toString(), options.value(u"persist_mode"_s).toString(),
                options.value(u"restore_token"_s).toString()));
        } else if (method == u"Start"_s) {
            code = startAnswer;
            if (code == 0) {
                results.insert(u"restore_token"_s, u"restore-%1"_s.arg(++m_grants));
            }
            print(u"Start answer=%1"_s.arg(code));
        } else {
            return false;
        }
        QDBusMessage response =
            QDBusMessage::createSignal(requestPath, u"org.freedesktop.portal.Request"_s, u"Response"_s);
        response << code << results;
        connection.send(response);
        return true;
    }

private:
    static void print(const QString& line) {
        std::fputs(qPrintable(line + u'\n'), stdout);
        std::fflush(stdout);
    }

    int m_grants = 0;
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption startAnswer(u"start-answer"_s, u"Response code of Start."_s, u"code"_s, u"0"_s);
    const QCommandLineOption sourceTypes(u"source-types"_s, u"AvailableSourceTypes."_s, u"bits"_s, u"7"_s);
    const QCommandLineOption deviceTypes(u"device-types"_s, u"AvailableDeviceTypes."_s, u"bits"_s, u"7"_s);
    parser.addOptions({startAnswer, sourceTypes, deviceTypes});
    parser.process(application);

    FakePortal portal;
    portal.startAnswer = parser.value(startAnswer).toUInt();
    portal.sourceTypes = parser.value(sourceTypes).toUInt();
    portal.deviceTypes = parser.value(deviceTypes).toUInt();
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerVirtualObject(rootPath, &portal, QDBusConnection::SubPath) ||
        !bus.registerService(u"org.freedesktop.portal.Desktop"_s)) {
        std::fputs("fake_xdg_portal: cannot take the portal's name on the session bus\n", stderr);
        return 1;
    }
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    return QCoreApplication::exec();
}
