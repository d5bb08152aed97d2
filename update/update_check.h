#pragma once

#include <QList>
#include <QString>
#include <QUrl>
#include <QUuid>
#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkRequest;
class QObject;

namespace tellwyn {

// How large an offered update is. The text values are the ones the feed uses.
enum class UpdateType { major, minor, patch };

QString updateTypeText(UpdateType type);
const QList<UpdateType>& allUpdateTypes();

// What the feed offers.
struct UpdateInfo {
    QString version;
    UpdateType type = UpdateType::minor;
    std::optional<QString> releaseNotes; // none when the feed gives none or an empty text
    QString downloadURL;                 // as the feed gives it; may be empty

    friend bool operator==(const UpdateInfo&, const UpdateInfo&) = default;
};

// How one check ended.
struct UpdateCheckOutcome {
    enum class Kind { updateAvailable, checkFailed, upToDate };

    Kind kind = Kind::upToDate;
    UpdateInfo info; // updateAvailable
    QString message; // checkFailed: shown to the user as it is

    static UpdateCheckOutcome updateAvailable(UpdateInfo info) {
        return {Kind::updateAvailable, std::move(info), {}};
    }
    static UpdateCheckOutcome checkFailed(QString message) {
        return {Kind::checkFailed, {}, std::move(message)};
    }
    static UpdateCheckOutcome upToDate() { return {Kind::upToDate, {}, {}}; }

    friend bool operator==(const UpdateCheckOutcome&, const UpdateCheckOutcome&) = default;
};

// The value that opens the update sheet; every presentation has a fresh id.
struct UpdateDownloadPresentation {
    QUuid id;
    UpdateInfo info;
    QUrl fileURL; // the installer URL
};

// The version this build stamps into the binary, trimmed; may be empty.
QString currentAgentVersion();

// True when `candidate` is a higher version than `current`, comparing the numeric pieces between
// full stops from the left; pieces that are not decimal integers are dropped, missing ones are 0.
bool isVersionNewer(const QString& candidate, const QString& current);

// Reads the feed text (already trimmed) in its pipe, colon or plain form; none when it is invalid.
std::optional<UpdateInfo> parseUpdateFeed(const QString& text);

// The installer to download for an offered update: the feed's link when it is an http(s) URL,
// else the vendor's fallback installer; none when not even the fallback can be made.
std::optional<QUrl> installerURL(const UpdateInfo& info);
// The fallback: `baseURL` followed by name + extension; none for a name that trims to nothing.
std::optional<QUrl> fallbackInstallerURL(const QString& baseURL, const QString& name,
                                         const QString& extension);

// Points the fallback installer at another download folder (tests, packagers).
inline constexpr char downloadBaseEnvironmentVariable[] = "TELLWYN_DOWNLOAD_BASE_URL";

// A PEM file of certificate authorities trusted for the update feed and the installer besides the
// system's (a packager's own mirror, a test server).
inline constexpr char updateCaCertificatesEnvironmentVariable[] = "TELLWYN_UPDATE_CA_CERTIFICATES";

// Applies the update connections' TLS trust to a request.
void applyUpdateTlsSettings(QNetworkRequest& request);

// Vendor endpoints fixed at build time.
QString defaultUpdateFeedURL();
// The build's, unless the environment variable above is set and not empty.
QString vendorDownloadBaseURL();
QString vendorHomePageURL();
QString installerExtension();

// The environment variable that points the update check at another feed (tests, packagers).
inline constexpr char updateFeedEnvironmentVariable[] = "TELLWYN_UPDATE_FEED_URL";

// The feed URL to use: the command-line value when given, else the environment variable above
// when set and not empty, else the build's.
QString resolveUpdateFeedURL(const std::optional<QString>& commandLineValue);

struct UpdateCheckRequest {
    QString feedURL = defaultUpdateFeedURL();
    QString runningVersion = currentAgentVersion(); // empty counts as "1.0.0"
};

// Loads and interprets the feed; every failure becomes checkFailed. `done` runs on the thread of
// `context`, once, unless `context` is destroyed first.
void fetchUpdateOutcome(QNetworkAccessManager& network, const UpdateCheckRequest& request, QObject* context,
                        std::function<void(UpdateCheckOutcome)> done);

// Where the outcome of a check is shown: alerts and the update sheet, or a terminal.
class UpdatePresenter {
public:
    virtual ~UpdatePresenter() = default;
    virtual void showUpToDateAlert() = 0;
    virtual void showCheckFailedAlert(const QString& message) = 0;
    virtual void presentUpdateDownload(const UpdateDownloadPresentation& presentation) = 0;
};

// Runs one check and hands its outcome to `presenter` (which must outlive `context`).
void checkForUpdates(QNetworkAccessManager& network, const UpdateCheckRequest& request, QObject* context,
                     UpdatePresenter& presenter);

} // namespace tellwyn
