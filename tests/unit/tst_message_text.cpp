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
        refusal.message = u"no\x1b[2J\nsigned in"_s;
        QCOMPARE(messageSummary(refusal), u"error: denied: no\\x1b[2J\\nsigned in"_s);
        SystemStatsMessage stats;
        stats.osVersion = u"Debian\nModel: \u202e"_s;
        QVERIFY(statisticsText(stats).split(u'\n').contains(
            u"OS version:              Debian\\nModel: \\u{202e}"_s));
    }
};

QTEST_GUILESS_MAIN(TestMessageText)
#include "tst_message_text.moc"
