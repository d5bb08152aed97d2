#include "download_session.h"

#include "clock.h"
#include "update_check.h"
#include "update_texts.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// How much of the body Qt may hold before we have written it out; keeps memory flat when the
// disk is slower than the network.
constexpr qint64 readBufferSize = 256 * 1024;
constexpr qsizetype writeChunkSize = 256 * 1024;

bool isRedirectStatus(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

QString lastPathComponent(const QString& name) {
    const qsizetype slash = name.lastIndexOf(u'/');
    return slash < 0 ? name : name.mid(slash + 1);
}

} // namespace

QString collisionFreeFilePath(const QString& folder, const QString& fileName) {
    const QString name = lastPathComponent(fileName);
    const QDir dir(folder);
    QString candidate = dir.filePath(name);
    if (!QFileInfo::exists(candidate)) {
        return candidate;
    }
    // A leading dot starts a hidden name, not an extension.
    const qsizetype dot = name.lastIndexOf(u'.');
    const bool hasExtension = dot > 0 && dot < name.size() - 1;
    const QString base = hasExtension ? name.left(dot) : name;
    const QString extension = hasExtension ? name.mid(dot + 1) : QString();
    for (qint64 n = 1;; ++n) {
        QString numbered = base + u" ("_s + QString::number(n) + u')';
        if (hasExtension) {
            numbered += u'.' + extension;
        }
        candidate = dir.filePath(numbered);
        if (!QFileInfo::exists(candidate)) {
            return candidate;
        }
    }
}

QString suggestedDownloadFileName(const QByteArray& contentDisposition, const QUrl& url) {
    const QString header = QString::fromUtf8(contentDisposition);
    static const QRegularExpression extended(uR"(filename\*\s*=\s*UTF-8''([^;\s]+))"_s,
                                             QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression quoted(uR"re(filename\s*=\s*"((?:[^"\\]|\\.)*)")re"_s,
                                           QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression token(uR"(filename\s*=\s*([^;\s"]+))"_s,
                                          QRegularExpression::CaseInsensitiveOption);
    QString name;
    if (const QRegularExpressionMatch m = extended.match(header); m.hasMatch()) {
        name = QUrl::fromPercentEncoding(m.captured(1).toUtf8());
    } else if (const QRegularExpressionMatch q = quoted.match(header); q.hasMatch()) {
        name = q.captured(1);
        name.replace(QRegularExpression(uR"(\\(.))"_s), u"\\1"_s);
    } else if (const QRegularExpressionMatch t = token.match(header); t.hasMatch()) {
        name = t.captured(1);
    }
    name = lastPathComponent(name).trimmed();
    if (name.isEmpty() || name == u"."_s || name == u".."_s) {
        name = url.fileName();
    }
    return name;
}

QStringList BrevaneInstallerDownloadSession::standardDownloadsFolders() {
    return QStandardPaths::standardLocations(QStandardPaths::DownloadLocation);
}

BrevaneInstallerDownloadSession::BrevaneInstallerDownloadSession(Scheduler& scheduler, QObject* parent)
    : QObject(parent), m_scheduler(scheduler), m_downloadsFolders(&standardDownloadsFolders) {
}

BrevaneInstallerDownloadSession::~BrevaneInstallerDownloadSession() {
    dropTransfer();
    removePartialFile();
}

void BrevaneInstallerDownloadSession::startDownload(const QUrl& url) {
    if (!m_network) {
        setPhase(Phase::failed(localizedText("Download could not start (internal error).")));
        return;
    }
    m_lastRequestedURL = url;
    m_currentURL = url;
    dropTransfer();
    removePartialFile();
    m_committedDestination.reset();
    m_abortMessage.reset();
    m_cancelRequested = false;
    m_bytesReceived = 0;
    m_bytesTotal = -1;
    setPhase(Phase::preparing());
    setProgress(0);

    QNetworkRequest request(url);
    // Redirects are checked one by one so that an https download is never continued over http.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::UserVerifiedRedirectPolicy);
    applyUpdateTlsSettings(request);
    m_reply = m_network->get(request);
    m_reply->setReadBufferSize(readBufferSize);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &BrevaneInstallerDownloadSession::onMetaData);
    connect(m_reply, &QNetworkReply::readyRead, this, &BrevaneInstallerDownloadSession::onReadyRead);
    connect(m_reply, &QNetworkReply::downloadProgress, this,
            &BrevaneInstallerDownloadSession::onDownloadProgress);
    connect(m_reply, &QNetworkReply::redirected, this, &BrevaneInstallerDownloadSession::onRedirected);
    connect(m_reply, &QNetworkReply::finished, this, &BrevaneInstallerDownloadSession::onFinished);
    armStallTimer();
}

void BrevaneInstallerDownloadSession::cancelDownload() {
    if (!m_activeDownload) {
        dropTransfer();
        removePartialFile();
        m_committedDestination.reset();
        setPhase(Phase::cancelled());
        return;
    }
    // The phase changes when the transfer reports back that it stopped.
    m_cancelRequested = true;
    m_activeDownload->abort();
}

void BrevaneInstallerDownloadSession::setPhase(Phase phase) {
    if (m_phase == phase) {
        return;
    }
    m_phase = std::move(phase);
    Q_EMIT phaseChanged();
}

void BrevaneInstallerDownloadSession::setProgress(double progress) {
    if (m_progress == progress) {
        return;
    }
    m_progress = progress;
    Q_EMIT progressChanged();
}

void BrevaneInstallerDownloadSession::handOver() {
    if (m_activeDownload || !m_reply) {
        return;
    }
    m_activeDownload = m_reply;
    setPhase(Phase::downloading());
}

void BrevaneInstallerDownloadSession::onMetaData() {
    armStallTimer();
    const QVariant statusValue = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const int status = statusValue.toInt();
    if (isRedirectStatus(status) && m_reply->hasRawHeader("Location")) {
        return; // the redirect is followed; the real answer comes later
    }
    handOver();
    if (status < 200 || status > 299 || m_partialFile) {
        return; // an error page is not saved; the transfer ends with the server's error
    }
    if (!decideDestination()) {
        fail(localizedText("Could not access your Downloads folder."));
    }
}

bool BrevaneInstallerDownloadSession::decideDestination() {
    const QStringList folders = m_downloadsFolders ? m_downloadsFolders() : QStringList();
    if (folders.isEmpty() || folders.constFirst().isEmpty()) {
        return false;
    }
    const QString folder = folders.constFirst();
    if (!QDir().mkpath(folder)) {
        return false;
    }
    QString name = suggestedDownloadFileName(m_reply->rawHeader("Content-Disposition"), m_reply->url());
    if (name.isEmpty()) {
        name = u"TellwynAgent"_s + installerExtension();
    }
    const QString destination = collisionFreeFilePath(folder, name);

    // Hidden, beside the destination (same file system, so the final rename is atomic).
    const QString hiddenName = u"."_s + QFileInfo(destination).fileName() + u'.' +
                               QString::number(QRandomGenerator::global()->generate(), 16) + u".part"_s;
    auto file = std::make_unique<QFile>(QDir(folder).filePath(hiddenName));
    if (!file->open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        const QString problem = file->errorString();
        abortWith(problem);
        return true; // the failure is the file's own
    }
    m_partialFile = std::move(file);
    m_committedDestination = destination;
    return true;
}

void BrevaneInstallerDownloadSession::onReadyRead() {
    armStallTimer();
    if (!m_reply) {
        return;
    }
    if (!m_partialFile) {
        m_reply->skip(m_reply->bytesAvailable());
        return;
    }
    QByteArray chunk(writeChunkSize, Qt::Uninitialized);
    while (m_reply && m_reply->bytesAvailable() > 0) {
        const qint64 read = m_reply->read(chunk.data(), chunk.size());
        if (read <= 0) {
            break;
        }
        if (m_partialFile->write(chunk.constData(), read) != read) {
            abortWith(m_partialFile->errorString());
            return;
        }
    }
}

void BrevaneInstallerDownloadSession::onDownloadProgress(qint64 received, qint64 total) {
    armStallTimer();
    if (!m_activeDownload || !m_partialFile || m_cancelRequested) {
        return;
    }
    m_bytesReceived = received;
    m_bytesTotal = total;
    setProgress(total > 0 ? static_cast<double>(received) / static_cast<double>(total) : 0.0);
}

void BrevaneInstallerDownloadSession::onRedirected(const QUrl& target) {
    armStallTimer();
    const QUrl resolved = m_currentURL.resolved(target);
    if (m_currentURL.scheme() == u"https"_s && resolved.scheme() != u"https"_s) {
        abortWith(localizedText("The download was stopped because the server sent it from a secure (https) "
                                "address to an insecure one. The installer is only downloaded securely."));
        return;
    }
    m_currentURL = resolved;
    Q_EMIT m_reply->redirectAllowed();
}

void BrevaneInstallerDownloadSession::onFinished() {
    if (m_cancelRequested) {
        dropTransfer();
        removePartialFile();
        m_committedDestination.reset();
        setPhase(Phase::cancelled());
        return;
    }
    if (m_abortMessage) {
        fail(*m_abortMessage);
        return;
    }
    if (m_reply->error() != QNetworkReply::NoError) {
        fail(m_reply->errorString());
        return;
    }
    onReadyRead(); // whatever arrived with the end
    if (m_reply) {
        finishSuccessfully();
    }
}

void BrevaneInstallerDownloadSession::finishSuccessfully() {
    dropTransfer();
    setProgress(1);
    if (!m_committedDestination || !m_partialFile) {
        removePartialFile();
        m_committedDestination.reset();
        setPhase(Phase::failed(localizedText("Download finished but the file location is unknown.")));
        return;
    }
    if (!m_partialFile->flush()) {
        fail(m_partialFile->errorString());
        return;
    }
    m_partialFile->close();
    QString destination = *m_committedDestination;
    const QFileInfo chosen(destination);
    // A file that took the chosen name meanwhile is never overwritten: the next free name is used.
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (QFileInfo::exists(destination)) {
            destination = collisionFreeFilePath(chosen.absolutePath(), chosen.fileName());
        }
        if (m_partialFile->rename(destination)) {
            m_partialFile.reset();
            m_committedDestination.reset();
            setPhase(Phase::finished(QUrl::fromLocalFile(destination)));
            return;
        }
        if (!QFileInfo::exists(destination)) {
            break;
        }
    }
    fail(m_partialFile->errorString());
}

void BrevaneInstallerDownloadSession::fail(const QString& message) {
    dropTransfer();
    removePartialFile();
    m_committedDestination.reset();
    setPhase(Phase::failed(message));
}

void BrevaneInstallerDownloadSession::dropTransfer() {
    m_stallTimer.reset();
    m_activeDownload = nullptr;
    if (QNetworkReply* reply = m_reply.data()) {
        m_reply = nullptr;
        disconnect(reply, nullptr, this, nullptr);
        if (reply->isRunning()) {
            reply->abort();
        }
        reply->deleteLater();
    }
}

void BrevaneInstallerDownloadSession::removePartialFile() {
    if (m_partialFile) {
        m_partialFile->close();
        m_partialFile->remove();
        m_partialFile.reset();
    }
}

void BrevaneInstallerDownloadSession::armStallTimer() {
    if (!m_reply) {
        return;
    }
    m_stallTimer = m_scheduler.oneShot(stallTimeout, this, [this] {
        abortWith(localizedText("The download stopped because no data arrived for 60 seconds."));
    });
}

void BrevaneInstallerDownloadSession::abortWith(const QString& message) {
    if (!m_reply) {
        return;
    }
    m_abortMessage = message;
    if (m_reply->isRunning()) {
        m_reply->abort(); // reports back through onFinished
    } else {
        fail(message);
    }
}

} // namespace tellwyn
