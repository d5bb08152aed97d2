#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QNetworkRequest>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

// The crash report as text and as the upload request that carries it. Plain functions of their
// inputs, used by the helper process that reports a crash.

namespace tellwyn {

// "SIGSEGV (Segmentation Violation)" and the like; "Signal N" for any other number.
QString signalText(int signal);

struct ExceptionDescription {
    QString name;                  // the exception's type, demangled
    std::optional<QString> reason; // `what()`, none for an exception that has no such text
    QStringList callStack;
    // Entries in their own order; none at all means no "User Info" section.
    std::optional<QList<QPair<QString, QString>>> userInfo;
};

QString exceptionReport(const ExceptionDescription& exception);
QString signalReport(int signal, const QStringList& callStack);

struct ReportHeader {
    QString applicationName; // empty reads "Unknown"
    QString version;         // empty reads "Unknown"
    QString osVersion;
    QDateTime time;
};

QString crashReportText(const ReportHeader& header, const QString& body);

// The time as the report writes it: ISO 8601 in UTC, whole seconds (2024-05-01T12:34:56Z).
QString reportTimestamp(const QDateTime& time);

// This machine's operating system: the os-release name and the kernel release.
QString operatingSystemVersionText();

// The value, or "Unknown" when it is empty.
QString textOrUnknown(const QString& text);

// A new random UUID in upper case, as the form's boundary.
QString newBoundary();

struct CrashUpload {
    QNetworkRequest request;
    QByteArray body;
};

// The POST request and its multipart body with the single "crashlog" field; nothing when the
// endpoint is not usable or the text cannot be encoded as UTF-8.
std::optional<CrashUpload> makeCrashUpload(const QUrl& endpoint, const QString& report,
                                           const QString& applicationName, const QString& version,
                                           const QString& boundary);

} // namespace tellwyn
