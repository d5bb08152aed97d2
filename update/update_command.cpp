#include "update_command.h"

#include "download_session.h"
#include "server_log_manager.h"
#include "update_texts.h"

#include <QNetworkAccessManager>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Texts the update server chose (feed, notes, file names, error texts) reach the terminal with
// their control characters escaped, so that they cannot move the cursor or forge other lines.
QString fromServer(const QString& text) {
    return ServerLogManager::escapeControlCharacters(text);
}

} // namespace

namespace {

constexpr qint64 redrawIntervalMs = 200;
constexpr int barWidth = 24;

QString formatDuration(qint64 seconds) {
    if (seconds >= 3600) {
        return u"%1:%2:%3"_s.arg(seconds / 3600)
            .arg((seconds / 60) % 60, 2, 10, QLatin1Char('0'))
            .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    }
    return u"%1:%2"_s.arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

UpdateCommandExit exitForDownload(const BrevaneInstallerDownloadSession::Phase& phase, bool started) {
    using Kind = BrevaneInstallerDownloadSession::Phase::Kind;
    if (!started) {
        return UpdateCommandExit::updateAvailable;
    }
    switch (phase.kind) {
    case Kind::finished:
        return UpdateCommandExit::downloaded;
    case Kind::failed:
        return UpdateCommandExit::downloadFailed;
    case Kind::idle:
    case Kind::preparing:
    case Kind::downloading:
    case Kind::cancelled:
        break;
    }
    return UpdateCommandExit::downloadCancelled; // closing the sheet drops a running download
}

QString formatByteCount(qint64 bytes) {
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return u"%1 B"_s.arg(bytes);
    }
    double value = static_cast<double>(bytes) / 1024.0;
    int unit = 0;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    return u"%1 %2"_s.arg(value, 0, 'f', value < 10.0 ? 1 : 0).arg(QLatin1String(units[unit]));
}

QString terminalProgressLine(qint64 received, qint64 total, double elapsedSeconds) {
    const double rate = elapsedSeconds > 0 ? static_cast<double>(received) / elapsedSeconds : 0.0;
    QString line;
    if (total > 0) {
        const double fraction =
            std::clamp(static_cast<double>(received) / static_cast<double>(total), 0.0, 1.0);
        const auto filled = static_cast<int>(fraction * barWidth);
        line = u"["_s + QString(filled, u'#') + QString(barWidth - filled, u'-') + u"]  "_s +
               formatByteCount(received) + u" / "_s + formatByteCount(total);
    } else {
        line = formatByteCount(received);
    }
    line += u"  "_s + formatByteCount(static_cast<qint64>(rate)) + u"/s"_s;
    if (total > 0 && rate > 0) {
        const auto left = static_cast<qint64>(static_cast<double>(total - received) / rate + 0.5);
        line += u"  "_s + formatDuration(left) + u" left"_s;
    }
    return line;
}

TerminalUpdateCommand::TerminalUpdateCommand(QNetworkAccessManager& network, Scheduler& scheduler,
                                             UpdateCommandOptions options, FILE* out, FILE* err,
                                             QObject* parent)
    : QObject(parent), m_network(network), m_scheduler(scheduler), m_options(std::move(options)), m_out(out),
      m_err(err) {
}

TerminalUpdateCommand::~TerminalUpdateCommand() = default;

void TerminalUpdateCommand::start() {
    checkForUpdates(m_network, m_options.check, this, *this);
}

void TerminalUpdateCommand::interrupt() {
    if (m_session && !m_session->phase().isEnd()) {
        m_session->cancelDownload();
        return;
    }
    end(m_session ? UpdateCommandExit::downloadCancelled : UpdateCommandExit::checkFailed);
}

void TerminalUpdateCommand::showUpToDateAlert() {
    print(m_out, localizedText("No Updates Available") + u'\n' +
                     localizedText("You are using the latest version of TellwynAgent.") + u'\n');
    end(UpdateCommandExit::upToDate);
}

void TerminalUpdateCommand::showCheckFailedAlert(const QString& message) {
    print(m_err, localizedText("Couldn't Check for Updates") + u'\n' + fromServer(message) + u'\n');
    end(UpdateCommandExit::checkFailed);
}

void TerminalUpdateCommand::presentUpdateDownload(const UpdateDownloadPresentation& presentation) {
    QString text =
        localizedText("Update Available") + u'\n' +
        localizedText("Version %1 is ready to download.").arg(fromServer(presentation.info.version)) + u'\n';
    if (presentation.info.releaseNotes && !presentation.info.releaseNotes->isEmpty()) {
        QStringList lines = presentation.info.releaseNotes->split(u'\n');
        for (QString& line : lines) {
            line = fromServer(line);
        }
        text += localizedText("Release Notes") + u'\n' + lines.join(u'\n') + u'\n';
    }
    text += presentation.fileURL.toString(QUrl::FullyEncoded) + u'\n';
    print(m_out, text);
    if (!m_options.download) {
        end(UpdateCommandExit::updateAvailable);
        return;
    }
    m_session = std::make_unique<BrevaneInstallerDownloadSession>(m_scheduler);
    m_session->setNetworkAccessManager(&m_network);
    connect(m_session.get(), &BrevaneInstallerDownloadSession::phaseChanged, this,
            &TerminalUpdateCommand::onPhaseChanged);
    connect(m_session.get(), &BrevaneInstallerDownloadSession::progressChanged, this,
            [this] { drawProgress(false); });
    m_sinceStart.start();
    m_session->startDownload(presentation.fileURL);
}

void TerminalUpdateCommand::onPhaseChanged() {
    using Kind = BrevaneInstallerDownloadSession::Phase::Kind;
    const BrevaneInstallerDownloadSession::Phase& phase = m_session->phase();
    switch (phase.kind) {
    case Kind::idle:
    case Kind::preparing:
        print(m_err, localizedText("Preparing download…") + u'\n');
        return;
    case Kind::downloading:
        m_sinceStart.restart();
        return;
    case Kind::finished:
        drawProgress(true);
        print(m_out,
              localizedText("Download complete") + u'\n' + fromServer(phase.fileURL.toLocalFile()) + u'\n');
        end(UpdateCommandExit::downloaded);
        return;
    case Kind::failed:
        print(m_err, localizedText("Download failed") + u'\n' + fromServer(phase.message) + u'\n');
        end(UpdateCommandExit::downloadFailed);
        return;
    case Kind::cancelled:
        print(m_err, localizedText("Download cancelled.") + u'\n');
        end(UpdateCommandExit::downloadCancelled);
        return;
    }
}

void TerminalUpdateCommand::drawProgress(bool force) {
    if (!m_session) {
        return;
    }
    const qint64 now = m_sinceStart.elapsed();
    if (!force && m_lastDrawMs >= 0 && now - m_lastDrawMs < redrawIntervalMs) {
        return;
    }
    m_lastDrawMs = now;
    const QString line = terminalProgressLine(m_session->bytesReceived(), m_session->bytesTotal(),
                                              static_cast<double>(now) / 1000.0);
    // On a terminal the line is redrawn in place; elsewhere (a log file) each redraw is its own line.
    const bool onTerminal = isatty(fileno(m_err)) == 1;
    const QString text = downloadingProgressText(m_session->progress()) + u"  "_s + line;
    print(m_err, onTerminal ? u"\r"_s + text + u"\x1b[K"_s : text + u'\n');
    m_progressShown = onTerminal;
}

void TerminalUpdateCommand::print(FILE* stream, const QString& text) {
    const QByteArray bytes = text.toLocal8Bit();
    if (m_progressShown && !text.startsWith(u'\r')) {
        // End the progress line before anything else is written.
        std::fputc('\n', m_err);
        std::fflush(m_err);
        m_progressShown = false;
    }
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

void TerminalUpdateCommand::end(UpdateCommandExit exit) {
    if (m_ended) {
        return;
    }
    m_ended = true;
    Q_EMIT finished(static_cast<int>(exit));
}

} // namespace tellwyn
