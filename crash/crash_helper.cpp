// The helper process: runs outside the crashed process, with an ordinary heap and event loop.

#include "crash_record.h"
#include "crash_report.h"
#include "crash_reporter.h"
#include "linux/linux_display_probe.h"
#include "stack_symbolizer.h"

#include <QApplication>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSocketNotifier>
#include <QTimer>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace tellwyn {

namespace {

bool readRecord(int descriptor, CrashRecord& record) {
    auto* bytes = reinterpret_cast<char*>(&record);
    std::size_t have = 0;
    while (have < sizeof record) {
        pollfd input{descriptor, POLLIN, 0};
        const int ready = poll(&input, 1, 2000);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        const ssize_t count = read(descriptor, bytes + have, sizeof record - have);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        have += static_cast<std::size_t>(count);
    }
    return record.magic == CrashRecord::magicValue && record.size == sizeof record;
}

template <std::size_t N> QString text(char (&field)[N]) {
    field[N - 1] = '\0';
    return QString::fromUtf8(field);
}

QString reportBody(CrashRecord& record) {
    std::vector<std::uint64_t> frames(
        record.frames, record.frames + std::min<std::uint32_t>(record.frameCount, CrashRecord::maxFrames));
    const QStringList callStack =
        StackSymbolizer::forProcess(record.pid).symbolize(frames, record.instructionAddress);
    if (record.isException == 0) {
        return signalReport(record.signal, callStack);
    }
    ExceptionDescription exception;
    exception.name = StackSymbolizer::demangle(text(record.exceptionType).toUtf8());
    if (record.hasReason != 0) {
        exception.reason = text(record.exceptionReason);
    }
    exception.callStack = callStack;
    if (record.hasUserInfo != 0) {
        exception.userInfo.emplace();
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(record.userInfoCount, CrashRecord::maxUserInfo);
             ++i) {
            exception.userInfo->append({text(record.userInfo[i][0]), text(record.userInfo[i][1])});
        }
    }
    return exceptionReport(exception);
}

bool alertPossible(const CrashRecord& record) {
    if (record.hasUserInterface == 0) {
        return false;
    }
    // Virtual platforms need no display server.
    const QString platform = qEnvironmentVariable("QT_QPA_PLATFORM");
    return platform.startsWith(u"offscreen"_s) || platform.startsWith(u"minimal"_s) ||
           LinuxDisplayProbe::displayReachable();
}

// The alert's four paragraphs; the last one names the support address.
QString alertInformativeText() {
    // clang-format off
    return QStringList{
        QCoreApplication::translate("CrashReporter", "The application encountered an unexpected error."),
        QCoreApplication::translate("CrashReporter", "The developer team at Brevane has been automatically notified of this crash and will work on a fix as soon as possible."),
        QCoreApplication::translate("CrashReporter", "An update of the app will be available very soon."),
        QCoreApplication::translate("CrashReporter", "Send an email to ") + CrashReporter::supportEmail() +
            QCoreApplication::translate("CrashReporter", " to be notified asap."),
    }.join(u"\n\n"_s);
    // clang-format on
}

} // namespace

QString CrashReporter::endpoint() {
    const QString chosen = qEnvironmentVariable(endpointVariable);
    return chosen.isEmpty() ? QStringLiteral(TELLWYN_CRASH_REPORT_URL) : chosen;
}

QString CrashReporter::supportEmail() {
    return QStringLiteral(TELLWYN_SUPPORT_EMAIL);
}

int CrashReporter::runHelper(int descriptor, int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    auto record = std::make_unique<CrashRecord>();
    if (!readRecord(descriptor, *record)) {
        return 1;
    }
    const QString applicationName = text(record->applicationName);
    const QString version = text(record->version);
    const QString report = crashReportText({applicationName, version, text(record->osVersion),
                                            QDateTime::fromSecsSinceEpoch(record->seconds, Qt::UTC)},
                                           reportBody(*record));
    // Nothing is stored on disk: standard error (the journal, a terminal) keeps the copy.
    const QByteArray printed = report.toUtf8() + '\n';
    std::fwrite(printed.constData(), 1, static_cast<std::size_t>(printed.size()), stderr);
    std::fflush(stderr);

    const bool withAlert = alertPossible(*record);
    std::unique_ptr<QCoreApplication> application = withAlert
                                                        ? std::make_unique<QApplication>(argc, argv)
                                                        : std::make_unique<QCoreApplication>(argc, argv);

    const auto answer = [descriptor](char message) {
        while (write(descriptor, &message, 1) < 0 && errno == EINTR) {
        }
    };

    // The crashed process closing its end means it is gone: nothing is left to report to.
    QSocketNotifier gone(static_cast<qintptr>(descriptor), QSocketNotifier::Read);
    QObject::connect(&gone, &QSocketNotifier::activated, application.get(), [descriptor, &gone] {
        char ignored = 0;
        if (read(descriptor, &ignored, 1) <= 0) {
            gone.setEnabled(false);
            QCoreApplication::quit();
        }
    });

    std::unique_ptr<QMessageBox> alert;
    const auto showAlert = [&] {
        if (!withAlert) {
            answer(HelperMessage::noAlert);
            QCoreApplication::quit();
            return;
        }
        alert = std::make_unique<QMessageBox>();
        alert->setIcon(QMessageBox::Warning);
        alert->setWindowTitle(applicationName);
        alert->setText(QCoreApplication::translate("CrashReporter", "Application Error"));
        alert->setInformativeText(alertInformativeText());
        alert->setDefaultButton(
            alert->addButton(QCoreApplication::translate("CrashReporter", "OK"), QMessageBox::AcceptRole));
        alert->setWindowFlag(Qt::WindowStaysOnTopHint);
        QObject::connect(alert.get(), &QMessageBox::finished, application.get(), [&answer] {
            answer(HelperMessage::alertDismissed);
            QCoreApplication::quit();
        });
        answer(HelperMessage::alertShown);
        alert->show();
        alert->raise();
        alert->activateWindow();
    };

    bool uploadOver = false;
    const auto endUpload = [&] {
        if (!uploadOver) {
            uploadOver = true;
            answer(HelperMessage::uploadOver);
            showAlert();
        }
    };

    QNetworkAccessManager network;
    const std::optional<CrashUpload> upload =
        makeCrashUpload(QUrl(endpoint()), report, applicationName, version, newBoundary());
    if (upload) {
        QNetworkReply* reply = network.post(upload->request, upload->body);
        QObject::connect(reply, &QNetworkReply::finished, application.get(), endUpload);
        // The response is not used; an upload still running after its wait is abandoned.
        QTimer::singleShot(500ms, application.get(), endUpload);
    } else {
        QMetaObject::invokeMethod(application.get(), endUpload, Qt::QueuedConnection);
    }
    answer(HelperMessage::requestStarted);
    const int code = QCoreApplication::exec();
    alert.reset();
    return code;
}

} // namespace tellwyn
