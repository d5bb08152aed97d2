#include "crash_report.h"

#include <QSysInfo>
#include <QUuid>
#include <csignal>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString signalText(int signal) {
    switch (signal) {
    case SIGILL:
        return u"SIGILL (Illegal Instruction)"_s;
    case SIGTRAP:
        return u"SIGTRAP (Trace Trap)"_s;
    case SIGABRT:
        return u"SIGABRT (Abort)"_s;
    case SIGFPE:
        return u"SIGFPE (Floating Point Exception)"_s;
    case SIGBUS:
        return u"SIGBUS (Bus Error)"_s;
    case SIGSEGV:
        return u"SIGSEGV (Segmentation Violation)"_s;
    default:
        return u"Signal "_s + QString::number(signal);
    }
}

QString exceptionReport(const ExceptionDescription& exception) {
    QString text = u"Exception Type: "_s + exception.name + u"\n"_s;
    text += u"Exception Reason: "_s + exception.reason.value_or(u"Unknown"_s) + u"\n\n"_s;
    text += u"Call Stack:\n"_s + exception.callStack.join(u'\n');
    if (exception.userInfo) {
        text += u"\n\nUser Info:\n"_s;
        for (const auto& [key, value] : *exception.userInfo) {
            text += key + u": "_s + value + u"\n"_s;
        }
    }
    return text;
}

QString signalReport(int signal, const QStringList& callStack) {
    return u"Signal Type: "_s + signalText(signal) + u"\n\n"_s + u"Call Stack:\n"_s + callStack.join(u'\n');
}

QString textOrUnknown(const QString& text) {
    return text.isEmpty() ? u"Unknown"_s : text;
}

QString reportTimestamp(const QDateTime& time) {
    return time.toUTC().toString(Qt::ISODate);
}

QString crashReportText(const ReportHeader& header, const QString& body) {
    // On this system the operating-system line reads "OS Version: ".
    return u"Crash Report\n============\nApp: "_s + textOrUnknown(header.applicationName) + u"\nVersion: "_s +
           textOrUnknown(header.version) + u"\nOS Version: "_s + header.osVersion + u"\nTimestamp: "_s +
           reportTimestamp(header.time) + u"\n\n"_s + body;
}

QString operatingSystemVersionText() {
    return u"%1 (Linux %2)"_s.arg(QSysInfo::prettyProductName(), QSysInfo::kernelVersion());
}

QString newBoundary() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

std::optional<CrashUpload> makeCrashUpload(const QUrl& endpoint, const QString& report,
                                           const QString& applicationName, const QString& version,
                                           const QString& boundary) {
    const QString userAgent = textOrUnknown(applicationName) + u"-"_s + textOrUnknown(version);
    if (!endpoint.isValid() || endpoint.isRelative() || !QStringView(report).isValidUtf16() ||
        !QStringView(userAgent).isValidUtf16()) {
        return std::nullopt;
    }
    CrashUpload upload{QNetworkRequest(endpoint), {}};
    upload.request.setTransferTimeout(5000);
    upload.request.setRawHeader("User-Agent", userAgent.toUtf8());
    upload.request.setRawHeader("Content-Type", "multipart/form-data; boundary=" + boundary.toUtf8());

    const QByteArray delimiter = "--" + boundary.toUtf8();
    upload.body = delimiter + "\r\n";
    upload.body += "Content-Disposition: form-data; name=\"crashlog\"\r\n";
    upload.body += "\r\n";
    upload.body += report.toUtf8();
    upload.body += "\r\n";
    upload.body += delimiter + "--" + "\r\n";
    return upload;
}

} // namespace tellwyn
