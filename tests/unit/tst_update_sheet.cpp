#include "event_wait.h"
#include "fake_network.h"
#include "file_revealer.h"
#include "update_alerts.h"
#include "update_sheet.h"
#include "virtual_time.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>

using namespace Qt::StringLiterals;
using namespace tellwyn;
using tellwyn::testing::FakeNetworkAccessManager;
using tellwyn::testing::VirtualTime;

namespace {

struct FakeRevealer final : FileRevealer {
    void reveal(const QString& filePath) override { revealed.append(filePath); }
    QStringList revealed;
};

const QUrl installer(u"https://127.0.0.1/downloads/TellwynAgent.deb"_s);

// The visible widgets' texts as laid out on screen: top to bottom, then left to right.
template <typename W> QStringList visible(const QWidget& root) {
    QList<std::pair<QPoint, QString>> found;
    for (const W* widget : root.findChildren<W*>()) {
        if (widget->isVisible() && !widget->text().isEmpty()) {
            found.append({widget->mapTo(&root, QPoint(0, 0)), widget->text()});
        }
    }
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
        return a.first.y() != b.first.y() ? a.first.y() < b.first.y() : a.first.x() < b.first.x();
    });
    QStringList texts;
    for (const auto& entry : found) {
        texts.append(entry.second);
    }
    return texts;
}

QStringList visibleButtons(const QWidget& root) {
    return visible<QPushButton>(root);
}

QStringList visibleTexts(const QWidget& root) {
    return visible<QLabel>(root);
}

QPushButton* button(const QWidget& root, const QString& title) {
    for (QPushButton* candidate : root.findChildren<QPushButton*>()) {
        if (candidate->text() == title && candidate->isVisible()) {
            return candidate;
        }
    }
    return nullptr;
}

} // namespace

class TestUpdateSheet : public QObject {
    Q_OBJECT

    struct Rig {
        QTemporaryDir downloads;
        VirtualTime time;
        FakeNetworkAccessManager network;
        FakeRevealer revealer;
        QList<QUrl> opened;
        int dismissed = 0;
        std::unique_ptr<UpdateDownloadSheet> sheet;

        explicit Rig(std::optional<QString> notes = u"New dashboard"_s) {
            const QString folder = downloads.path();
            UpdateSheetServices services{time, &network, revealer,
                                         [this](const QUrl& url) { opened.append(url); },
                                         [folder] {
                                             return QStringList{folder};
                                         }};
            sheet = std::make_unique<UpdateDownloadSheet>(
                UpdateInfo{u"1.6.0"_s, UpdateType::major, std::move(notes), {}}, installer, services,
                [this] { ++dismissed; });
            sheet->show();
        }
        void click(const QString& title) {
            QPushButton* target = button(*sheet, title);
            QVERIFY2(target, qPrintable(title));
            target->click();
        }
    };

private Q_SLOTS:
    void beforeTheChoice() {
        Rig rig;
        QCOMPARE(
            visibleTexts(*rig.sheet),
            (QStringList{u"Update Available"_s, u"Version 1.6.0 is ready to download."_s, u"Release Notes"_s,
                         u"New dashboard"_s, u"Choose how to get the installer."_s}));
        QCOMPARE(visibleButtons(*rig.sheet),
                 (QStringList{u"Download directly in the app"_s, UpdateDownloadSheet::vendorSiteButtonTitle(),
                              u"Cancel"_s}));
        QVERIFY(rig.sheet->minimumWidth() >= 440);
        QCOMPARE(rig.sheet->findChild<QScrollArea*>(u"releaseNotesArea"_s)->maximumHeight(), 140);
        QVERIFY(rig.network.replies.isEmpty()); // nothing starts before the user chooses

        rig.click(UpdateDownloadSheet::vendorSiteButtonTitle());
        QCOMPARE(rig.opened, QList<QUrl>{QUrl(vendorHomePageURL())});
        rig.click(u"Cancel"_s);
        QVERIFY(!rig.sheet->isVisible());
        QCOMPARE(rig.dismissed, 1);
    }

    void noReleaseNotesNoBlock() {
        Rig rig(std::nullopt);
        QVERIFY(!visibleTexts(*rig.sheet).contains(u"Release Notes"_s));
        QVERIFY(!rig.sheet->findChild<QScrollArea*>(u"releaseNotesArea"_s));
    }

    void progressAndFinish() {
        Rig rig;
        rig.click(u"Download directly in the app"_s);
        QVERIFY(rig.sheet->userStartedInAppDownload());
        QCOMPARE(rig.network.lastReply()->request().url(), installer);
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Preparing download…"_s));
        QVERIFY(!visibleTexts(*rig.sheet).contains(u"Choose how to get the installer."_s));
        QCOMPARE(visibleButtons(*rig.sheet), QStringList{u"Cancel Download"_s});

        rig.network.lastReply()->respond(200, {{"Content-Length", "1000"}});
        rig.network.lastReply()->sendBody(QByteArray(999, 'x'), 1000);
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Downloading… 99%"_s));
        rig.network.lastReply()->sendBody("x", 1000);
        rig.network.lastReply()->finish();

        QVERIFY(visibleTexts(*rig.sheet).contains(u"Download complete"_s));
        QVERIFY(visibleTexts(*rig.sheet).contains(u"TellwynAgent.deb"_s));
        QCOMPARE(visibleButtons(*rig.sheet), (QStringList{u"Show in Folder"_s, u"Close"_s}));
        rig.click(u"Show in Folder"_s);
        QCOMPARE(rig.revealer.revealed, QStringList{rig.downloads.filePath(u"TellwynAgent.deb"_s)});
        rig.click(u"Close"_s);
        QCOMPARE(rig.dismissed, 1);
    }

    void failureOffersRetry() {
        Rig rig;
        rig.click(u"Download directly in the app"_s);
        rig.network.lastReply()->finish(QNetworkReply::ConnectionRefusedError, u"Connection refused"_s);
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Download failed"_s));
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Connection refused"_s));
        QCOMPARE(visibleButtons(*rig.sheet), (QStringList{u"Retry"_s, u"Close"_s}));

        rig.click(u"Retry"_s);
        QCOMPARE(rig.network.replies.size(), 2);
        QCOMPARE(rig.network.lastReply()->request().url(), installer);
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Preparing download…"_s));
        QCOMPARE(visibleButtons(*rig.sheet), QStringList{u"Cancel Download"_s});
    }

    void cancelLeavesOnlyClose() {
        Rig rig;
        rig.click(u"Download directly in the app"_s);
        rig.click(u"Cancel Download"_s);
        QVERIFY(visibleTexts(*rig.sheet).contains(u"Download cancelled."_s));
        QCOMPARE(visibleButtons(*rig.sheet), QStringList{u"Close"_s});
    }

    void alerts_data() {
        QTest::addColumn<bool>("upToDate");
        QTest::addColumn<int>("icon");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("informative");
        QTest::newRow("up to date") << true << int(QMessageBox::Information) << u"No Updates Available"_s
                                    << u"You are using the latest version of TellwynAgent."_s;
        QTest::newRow("failure") << false << int(QMessageBox::Warning) << u"Couldn't Check for Updates"_s
                                 << u"Invalid update feed format."_s;
    }
    void alerts() {
        QFETCH(bool, upToDate);
        QFETCH(int, icon);
        QFETCH(QString, text);
        QFETCH(QString, informative);
        QPointer<QMessageBox> box = upToDate ? showUpToDateAlert() : showCheckFailedAlert(informative);
        QCOMPARE(int(box->icon()), icon);
        QCOMPARE(box->text(), text);
        QCOMPARE(box->informativeText(), informative);
        QCOMPARE(box->buttons().size(), 1);
        QCOMPARE(box->buttons().constFirst()->text(), u"OK"_s);
        box->buttons().constFirst()->click();
        TRY_VERIFY(box.isNull()); // closed and gone
    }
};

QTEST_MAIN(TestUpdateSheet)
#include "tst_update_sheet.moc"
