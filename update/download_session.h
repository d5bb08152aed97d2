#pragma once

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace tellwyn {

class Scheduler;
class ScheduledTimer;

// The first name in `folder` that no file has: `fileName`, then "base (1).ext", "base (2).ext" …
// `fileName` is reduced to its last path component first.
QString collisionFreeFilePath(const QString& folder, const QString& fileName);

// The name a server suggests for a download: the Content-Disposition file name when there is
// one, else the last segment of the URL's path; may be empty.
QString suggestedDownloadFileName(const QByteArray& contentDisposition, const QUrl& url);

// Downloads the installer into the user's Downloads folder. The body is streamed into a hidden
// file beside the destination and only renamed to its final, collision-free name once complete,
// so a cancelled or failed download never leaves a partial file under a final name.
// Lives on the main thread; every change is announced by phaseChanged or progressChanged.
class BrevaneInstallerDownloadSession final : public QObject {
    Q_OBJECT
public:
    struct Phase {
        enum class Kind { finished, failed, idle, preparing, downloading, cancelled };

        Kind kind = Kind::idle;
        QUrl fileURL;    // finished
        QString message; // failed

        static Phase finished(QUrl url) { return {Kind::finished, std::move(url), {}}; }
        static Phase failed(QString text) { return {Kind::failed, {}, std::move(text)}; }
        static Phase idle() { return {}; }
        static Phase preparing() { return {Kind::preparing, {}, {}}; }
        static Phase downloading() { return {Kind::downloading, {}, {}}; }
        static Phase cancelled() { return {Kind::cancelled, {}, {}}; }

        bool isEnd() const {
            return kind == Kind::finished || kind == Kind::failed || kind == Kind::cancelled;
        }
        friend bool operator==(const Phase&, const Phase&) = default;
    };

    // A stalled transfer is given up after this long without any data.
    static constexpr std::chrono::milliseconds stallTimeout{60'000};

    using DownloadsFolders = std::function<QStringList()>;
    // The user's Downloads folders, best first (XDG user-dirs).
    static QStringList standardDownloadsFolders();

    explicit BrevaneInstallerDownloadSession(Scheduler& scheduler, QObject* parent = nullptr);
    ~BrevaneInstallerDownloadSession() override;

    const Phase& phase() const { return m_phase; }
    double progress() const { return m_progress; }
    const std::optional<QUrl>& lastRequestedURL() const { return m_lastRequestedURL; }
    qint64 bytesReceived() const { return m_bytesReceived; }
    qint64 bytesTotal() const { return m_bytesTotal; } // -1 while unknown

    // What performs the transfers; set by whoever hosts the session. Without one nothing can start.
    void setNetworkAccessManager(QNetworkAccessManager* network) { m_network = network; }
    // Where to save; the standard Downloads folders unless a test or the command line says otherwise.
    void setDownloadsFolders(DownloadsFolders folders) { m_downloadsFolders = std::move(folders); }

    void startDownload(const QUrl& url);
    void cancelDownload();

Q_SIGNALS:
    void phaseChanged();
    void progressChanged();

private:
    void setPhase(Phase phase);
    void setProgress(double progress);
    void handOver();
    void onMetaData();
    void onReadyRead();
    void onDownloadProgress(qint64 received, qint64 total);
    void onRedirected(const QUrl& target);
    void onFinished();
    void finishSuccessfully();
    void fail(const QString& message);
    void dropTransfer();
    void removePartialFile();
    bool decideDestination();
    void armStallTimer();
    void abortWith(const QString& message);

    Scheduler& m_scheduler;
    QPointer<QNetworkAccessManager> m_network;
    DownloadsFolders m_downloadsFolders;

    Phase m_phase;
    double m_progress = 0;
    std::optional<QUrl> m_lastRequestedURL;
    QUrl m_currentURL; // where the transfer is now, after the redirects it followed

    QPointer<QNetworkReply> m_reply;          // the transfer, from the request on
    QPointer<QNetworkReply> m_activeDownload; // the same once handed over
    std::optional<QString> m_committedDestination;
    std::unique_ptr<QFile> m_partialFile;
    std::unique_ptr<ScheduledTimer> m_stallTimer;
    std::optional<QString> m_abortMessage; // why we aborted, when not the user's cancel
    bool m_cancelRequested = false;
    qint64 m_bytesReceived = 0;
    qint64 m_bytesTotal = -1;
};

} // namespace tellwyn
