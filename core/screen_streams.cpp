// Screen streams: who may stream, the one capture all streams share, the log of each stream's
// start and end, and the published list of viewers watching.

#include "display_probe.h"
#include "screen_stream_hub.h"
#include "server_manager.h"

#include <QHash>
#include <QPointer>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

QString endText(const QString& reason) {
    static const QHash<QString, QString> texts{
        {u"viewerStopped"_s, u"the viewer stopped it"_s},
        {u"replaced"_s, u"the viewer started another stream"_s},
        {u"agentStopped"_s, u"streaming was stopped (screen sleep, clean-up or server stop)"_s},
        {u"displayLost"_s, u"the display went away"_s},
        {u"captureFailed"_s, u"the screen could not be read"_s},
        {u"disconnected"_s, u"the viewer disconnected"_s},
    };
    return texts.value(reason, reason);
}

} // namespace

void ServerManager::configureScreenStreaming(HLVPServerClient& client, const QString& key) {
    if (!m_screenStreams && m_environment.makeScreenSource &&
        m_environment.screenStreamingUnavailable.isEmpty()) {
        m_screenStreams = std::make_unique<ScreenStreamHub>(m_environment.makeScreenSource);
    }
    const QPointer<ServerManager> weak(this);
    client.configureScreenStreaming(m_screenStreams.get(), [weak](const ScreenCaptureRequest&) {
        return weak ? weak->screenStreamRefusal() : std::nullopt;
    });
    client.configureInput(m_environment.makeInputInjector,
                          [weak] { return weak ? weak->inputRefusal() : std::nullopt; });
    client.setOnScreenStreamChanged([weak, key](bool started, quint32 streamID, const QString& detail) {
        if (weak) {
            weak->handleScreenStreamChange(key, started, streamID, detail);
        }
    });
}

std::optional<ErrorMessage> ServerManager::inputRefusal() {
    if (!inputInjectionPermitted()) {
        return ErrorMessage{
            u"inputNotPermitted"_s, u"Input from viewers is not permitted on this computer."_s, {}, {}};
    }
    return std::nullopt;
}

std::optional<ErrorMessage> ServerManager::screenStreamRefusal() const {
    if (m_environment.displays.displayCount() == 0) {
        return ErrorMessage{u"headless"_s, u"This computer has no screen to stream."_s, {}, {}};
    }
    if (!m_environment.screenStreamingUnavailable.isEmpty() || !m_environment.makeScreenSource) {
        const QString text = m_environment.screenStreamingUnavailable.isEmpty()
                                 ? u"This computer cannot stream its screen."_s
                                 : m_environment.screenStreamingUnavailable;
        return ErrorMessage{u"screenStreamingUnsupported"_s, text, {}, {}};
    }
    if (!m_permissionState.screenCaptureAuthorized) {
        return ErrorMessage{
            u"screenCaptureNotPermitted"_s, u"Screen recording is not permitted on this computer."_s, {}, {}};
    }
    return std::nullopt;
}

void ServerManager::handleScreenStreamChange(const QString& key, bool started, quint32 streamID,
                                             const QString& detail) {
    if (started) {
        log(u"Screen stream %1 started for %2: %3"_s.arg(streamID).arg(displayLabel(key), detail),
            u"SCREEN"_s);
    } else {
        log(u"Screen stream %1 for %2 ended: %3"_s.arg(streamID).arg(displayLabel(key), endText(detail)),
            u"SCREEN"_s);
    }
    const auto client = m_serverState.connectedClients.value(key);
    const bool streaming = started || (client && client->isStreaming());
    if (streaming != m_serverState.streamingClients.contains(key)) {
        updateServerState([&](ServerState& state) {
            if (streaming) {
                state.streamingClients.insert(key);
            } else {
                state.streamingClients.remove(key);
            }
        });
    }
}

} // namespace tellwyn
