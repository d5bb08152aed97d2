// What the viewer prints of the agent's texts.

#include "message_text.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace tellwyn;

class TestMessageText : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void textsFromTheNetworkCannotDriveTheTerminalOrForgeLines() {
        ErrorMessage refusal;
        refusal.code = u"denied"_s;
        refusal.message = u"no\x1b[2J\nsigned-in: yes"_s;
        QCOMPARE(messageSummary(refusal), u"error: denied: no\\x1b[2J\\nsigned-in: yes"_s);

        SystemStatsMessage stats;
        stats.osVersion = u"Debian\nLogged-in user:         root"_s;
        stats.diskVolumes = QList<HLVPDiskVolumeInfo>{{u"root\u202e"_s, u"/\r"_s, 0, 0}};
        const QStringList lines = statisticsText(stats).split(u'\n');
        QVERIFY(lines.contains(u"OS version:              Debian\\nLogged-in user:         root"_s));
        QCOMPARE(lines.constLast(), u"  /\\r  root\\u{202e}: 0.0 GiB free of 0.0 GiB"_s);
    }
};

QTEST_GUILESS_MAIN(TestMessageText)
#include "tst_message_text.moc"
