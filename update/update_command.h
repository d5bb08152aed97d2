#pragma once

#include "download_session.h"
#include "update_check.h"

#include <QElapsedTimer>
#include <QObject>
#include <cstdio>
#include <memory>

class QNetworkAccessManager;

namespace tellwyn {

class Scheduler;

// How `tellwyn-agent --check-for-updates` ended.
enum class UpdateCommandExit : int {
    upToDate = 0,
    checkFailed = 1,
    // 2 is a command-line mistake.
    updateAvailable = 3, // offered, not downloaded
    downloaded = 4,
    downloadFailed = 5,
    downloadCancelled = 6,
};

// The exit code of an offered update, from where its download stands.
UpdateCommandExit exitForDownload(const BrevaneInstallerDownloadSession::Phase& phase, bool started);

struct UpdateCommandOptions {
    UpdateCheckRequest check;
    bool download = false; // fetch the installer when an update is offered
};

// The update check for a terminal: prints the outcome the alerts would show, downloads the
// installer with a progress bar when asked, and ends with an exit code per outcome.
class TerminalUpdateCommand final : public QObject, private UpdatePresenter {
    Q_OBJECT
public:
    TerminalUpdateCommand(QNetworkAccessManager& network, Scheduler& scheduler, UpdateCommandOptions options,
                          FILE* out = stdout, FILE* err = stderr, QObject* parent = nullptr);
    ~TerminalUpdateCommand() override;

    void start();
    // Ctrl-C: stops a running download (which then ends cancelled), or ends the check.
    void interrupt();

Q_SIGNALS:
    void finished(int exitCode);

private:
    void showUpToDateAlert() override;
    void showCheckFailedAlert(const QString& message) override;
    void presentUpdateDownload(const UpdateDownloadPresentation& presentation) override;
    void onPhaseChanged();
    void drawProgress(bool force);
    void print(FILE* stream, const QString& text);
    void end(UpdateCommandExit exit);

    QNetworkAccessManager& m_network;
    Scheduler& m_scheduler;
    UpdateCommandOptions m_options;
    FILE* m_out;
    FILE* m_err;
    std::unique_ptr<BrevaneInstallerDownloadSession> m_session;
    QElapsedTimer m_sinceStart;
    qint64 m_lastDrawMs = -1;
    bool m_progressShown = false;
    bool m_ended = false;
};

// "12.5 MiB", "980 KiB", "17 B".
QString formatByteCount(qint64 bytes);
// The terminal's progress line: bar, percentage, bytes, rate and time left.
QString terminalProgressLine(qint64 received, qint64 total, double elapsedSeconds);

} // namespace tellwyn
