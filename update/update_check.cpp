#include "update_check.h"

#include "update_texts.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QStringDecoder>
#include <QUuid>
#include <algorithm>
#include <memory>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Same limit as the platform's default request time-out: a feed that sends nothing for this long
// is given up.
constexpr int feedTransferTimeoutMs = 60'000;
// A feed is a version line and an address; anything much larger is not a feed, and reading it
// whole would only cost memory.
constexpr qint64 maximumFeedBytes = 64 * 1024;

// Why the agent itself ended a feed transfer early.
enum class FeedAbort { none, tooLarge };

std::optional<qint64> parseVersionPiece(QStringView piece) {
    // A decimal integer as a strict parser reads it: an optional sign, then ASCII digits only.
    QStringView digits = piece;
    if (!digits.isEmpty() && (digits.front() == u'+' || digits.front() == u'-')) {
        digits = digits.mid(1);
    }
    if (digits.isEmpty()) {
        return std::nullopt;
    }
    for (const QChar c : digits) {
        if (c < u'0' || c > u'9') {
            return std::nullopt;
        }
    }
    bool ok = false;
    const qint64 value = piece.toLongLong(&ok, 10);
    if (!ok) {
        return std::nullopt; // overflow
    }
    return value;
}

QList<qint64> versionNumbers(const QString& version) {
    QList<qint64> numbers;
    for (const QStringView piece : QStringView(version).split(u'.')) {
        if (const std::optional<qint64> number = parseVersionPiece(piece)) {
            numbers.append(*number);
        }
    }
    return numbers;
}

UpdateType typeFromFeed(const QString& text) {
    for (const UpdateType type : allUpdateTypes()) {
        if (updateTypeText(type) == text) {
            return type;
        }
    }
    return UpdateType::minor;
}

std::optional<QString> nonEmpty(const QString& text) {
    return text.isEmpty() ? std::nullopt : std::optional<QString>(text);
}

QString buildSetting(const char* value) {
    return QString::fromUtf8(value);
}

} // namespace

QString updateTypeText(UpdateType type) {
    switch (type) {
    case UpdateType::major:
        return u"Major"_s;
    case UpdateType::minor:
        return u"Minor"_s;
    case UpdateType::patch:
        return u"Patch"_s;
    }
    return {};
}

const QList<UpdateType>& allUpdateTypes() {
    static const QList<UpdateType> types{UpdateType::major, UpdateType::minor, UpdateType::patch};
    return types;
}

QString currentAgentVersion() {
    return QString::fromUtf8(TELLWYN_VERSION).trimmed();
}

bool isVersionNewer(const QString& candidate, const QString& current) {
    QList<qint64> a = versionNumbers(candidate);
    QList<qint64> b = versionNumbers(current);
    const qsizetype length = std::max(a.size(), b.size());
    a.resize(length, 0);
    b.resize(length, 0);
    for (qsizetype i = 0; i < length; ++i) {
        if (a.at(i) > b.at(i)) {
            return true;
        }
        if (a.at(i) < b.at(i)) {
            return false;
        }
    }
    return false;
}

std::optional<UpdateInfo> parseUpdateFeed(const QString& text) {
    UpdateInfo info;
    if (text.contains(u'|')) {
        const QStringList fields = text.split(u'|');
        if (fields.size() < 4) {
            return std::nullopt;
        }
        info.version = fields.at(0).trimmed();
        info.type = typeFromFeed(fields.at(1).trimmed());
        info.releaseNotes = nonEmpty(fields.at(2).trimmed());
        info.downloadURL = fields.at(3).trimmed();
    } else if (text.contains(u':')) {
        const qsizetype colon = text.indexOf(u':');
        QStringList pieces;
        for (const QString& piece : {text.left(colon), text.mid(colon + 1)}) {
            if (!piece.isEmpty()) {
                pieces.append(piece.trimmed());
            }
        }
        if (pieces.isEmpty()) {
            return std::nullopt;
        }
        info.version = pieces.at(0);
        info.releaseNotes = pieces.size() > 1 ? nonEmpty(pieces.at(1)) : std::nullopt;
    } else {
        info.version = text;
    }
    if (info.version.isEmpty() || !info.version.contains(u'.')) {
        return std::nullopt;
    }
    return info;
}

std::optional<QUrl> fallbackInstallerURL(const QString& baseURL, const QString& name,
                                         const QString& extension) {
    const QString trimmedName = name.trimmed();
    if (trimmedName.isEmpty()) {
        return std::nullopt;
    }
    const QUrl url(baseURL + trimmedName + extension, QUrl::StrictMode);
    if (!url.isValid() || url.isRelative()) {
        return std::nullopt;
    }
    return url;
}

std::optional<QUrl> installerURL(const UpdateInfo& info) {
    const QUrl link(info.downloadURL.trimmed(), QUrl::StrictMode);
    // The scheme is compared as written: QUrl would lower-case it, so look at the text itself.
    const QString written = info.downloadURL.trimmed();
    if (link.isValid() && !link.isRelative() &&
        (written.startsWith(u"https:"_s) || written.startsWith(u"http:"_s))) {
        return link;
    }
    return fallbackInstallerURL(vendorDownloadBaseURL(), u"TellwynAgent"_s, installerExtension());
}

QString defaultUpdateFeedURL() {
    return buildSetting(TELLWYN_UPDATE_FEED_URL);
}

QString vendorDownloadBaseURL() {
    const QString fromEnvironment = qEnvironmentVariable(downloadBaseEnvironmentVariable);
    return fromEnvironment.isEmpty() ? buildSetting(TELLWYN_DOWNLOAD_BASE_URL) : fromEnvironment;
}

QString vendorHomePageURL() {
    return buildSetting(TELLWYN_VENDOR_HOME_URL);
}

QString installerExtension() {
    return buildSetting(TELLWYN_INSTALLER_EXTENSION);
}

void applyUpdateTlsSettings(QNetworkRequest& request) {
    const QString path = qEnvironmentVariable(updateCaCertificatesEnvironmentVariable);
    if (path.isEmpty()) {
        return;
    }
    const QList<QSslCertificate> extra = QSslCertificate::fromPath(path, QSsl::Pem);
    if (extra.isEmpty()) {
        return;
    }
    QSslConfiguration configuration = request.sslConfiguration();
    configuration.addCaCertificates(extra);
    request.setSslConfiguration(configuration);
}

QString resolveUpdateFeedURL(const std::optional<QString>& commandLineValue) {
    if (commandLineValue) {
        return *commandLineValue;
    }
    const QString fromEnvironment = qEnvironmentVariable(updateFeedEnvironmentVariable);
    return fromEnvironment.isEmpty() ? defaultUpdateFeedURL() : fromEnvironment;
}

static UpdateCheckOutcome interpretFeedResponse(QNetworkReply& reply, const QString& runningVersion,
                                                FeedAbort abort) {
    if (abort == FeedAbort::tooLarge) {
        return UpdateCheckOutcome::checkFailed(localizedText("The update information is too large."));
    }
    // The transfer time-out ends a request the way a cancellation does; say what happened.
    if (reply.error() == QNetworkReply::OperationCanceledError) {
        return UpdateCheckOutcome::checkFailed(localizedText("The request timed out."));
    }
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const bool isHttp = status.isValid();
    const qint64 code = isHttp ? status.toLongLong() : 0;
    const bool statusOk = code >= 200 && code <= 299;
    // A transport failure wins, unless the server did answer with an error status: then its code
    // is what the user needs to see.
    if (reply.error() != QNetworkReply::NoError && (!isHttp || statusOk)) {
        return UpdateCheckOutcome::checkFailed(reply.errorString());
    }
    if (!isHttp) {
        return UpdateCheckOutcome::checkFailed(localizedText("No response from the update server."));
    }
    if (!statusOk) {
        return UpdateCheckOutcome::checkFailed(
            localizedText("The update server returned an error (code %1).").arg(code));
    }
    const QByteArray body = reply.readAll();
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = decoder.decode(body);
    if (decoder.hasError()) {
        return UpdateCheckOutcome::checkFailed(localizedText("Could not read the update information."));
    }
    const std::optional<UpdateInfo> info = parseUpdateFeed(text.trimmed());
    if (!info) {
        return UpdateCheckOutcome::checkFailed(localizedText("Invalid update feed format."));
    }
    const QString current = runningVersion.isEmpty() ? u"1.0.0"_s : runningVersion;
    if (isVersionNewer(info->version, current)) {
        return UpdateCheckOutcome::updateAvailable(*info);
    }
    return UpdateCheckOutcome::upToDate();
}

void fetchUpdateOutcome(QNetworkAccessManager& network, const UpdateCheckRequest& request, QObject* context,
                        std::function<void(UpdateCheckOutcome)> done) {
    const QPointer<QObject> guard(context);
    const auto deliver = [guard, done](UpdateCheckOutcome outcome) {
        // Always later, on the context's thread, so that callers see the same order either way.
        if (!guard) {
            return;
        }
        QMetaObject::invokeMethod(
            guard.data(),
            [guard, done, outcome = std::move(outcome)] {
                if (guard) {
                    done(outcome);
                }
            },
            Qt::QueuedConnection);
    };

    const QUrl url(request.feedURL, QUrl::StrictMode);
    if (request.feedURL.isEmpty() || !url.isValid() || url.isRelative()) {
        deliver(UpdateCheckOutcome::checkFailed(localizedText("Invalid update feed URL.")));
        return;
    }
    QNetworkRequest networkRequest(url);
    networkRequest.setTransferTimeout(feedTransferTimeoutMs);
    applyUpdateTlsSettings(networkRequest);
    QNetworkReply* reply = network.get(networkRequest);
    auto abort = std::make_shared<FeedAbort>(FeedAbort::none);
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply, [reply, abort](qint64 received, qint64) {
        if (received > maximumFeedBytes && *abort == FeedAbort::none) {
            *abort = FeedAbort::tooLarge;
            reply->abort();
        }
    });
    QObject::connect(reply, &QNetworkReply::finished, reply,
                     [reply, deliver, abort, runningVersion = request.runningVersion] {
                         reply->deleteLater();
                         deliver(interpretFeedResponse(*reply, runningVersion, *abort));
                     });
}

void checkForUpdates(QNetworkAccessManager& network, const UpdateCheckRequest& request, QObject* context,
                     UpdatePresenter& presenter) {
    fetchUpdateOutcome(network, request, context, [&presenter](const UpdateCheckOutcome& outcome) {
        switch (outcome.kind) {
        case UpdateCheckOutcome::Kind::updateAvailable:
            if (const std::optional<QUrl> url = installerURL(outcome.info)) {
                presenter.presentUpdateDownload(
                    UpdateDownloadPresentation{QUuid::createUuid(), outcome.info, *url});
            } else {
                presenter.showCheckFailedAlert(
                    localizedText("The download link for this update is missing or invalid."));
            }
            return;
        case UpdateCheckOutcome::Kind::checkFailed:
            presenter.showCheckFailedAlert(outcome.message);
            return;
        case UpdateCheckOutcome::Kind::upToDate:
            presenter.showUpToDateAlert();
            return;
        }
    });
}

} // namespace tellwyn
