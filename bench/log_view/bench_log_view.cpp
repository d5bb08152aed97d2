// The log page under a burst of lines: the time each appended line costs the main thread, for the
// model/view list the log page uses and, as the reference, a list with one row of labels per line.

#include "log_page.h"
#include "server_log_manager.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QHBoxLayout>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QTextStream>
#include <QVBoxLayout>
#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

constexpr int filledLines = 1000;
constexpr int burstLines = 5000;
constexpr int rounds = 5;

// The reference: a scrolling column with a row of three labels per line, added and removed as
// the log appends and drops lines.
class LabelRowsLog final : public QScrollArea {
public:
    explicit LabelRowsLog(ServerLogManager& log) : m_log(log), m_column(new QVBoxLayout) {
        auto* content = new QWidget;
        auto* outer = new QVBoxLayout(content);
        outer->addLayout(m_column);
        outer->addStretch(1);
        setWidget(content);
        setWidgetResizable(true);
        for (const QString& line : log.logs()) {
            addRow(line);
        }
        connect(&m_log, &ServerLogManager::linesAppended, this,
                [this](qsizetype appended, qsizetype dropped) {
                    for (qsizetype i = 0; i < dropped; ++i) {
                        QLayoutItem* item = m_column->takeAt(0);
                        delete item->widget();
                        delete item;
                    }
                    const QStringList& lines = m_log.logs();
                    for (qsizetype i = lines.size() - appended; i < lines.size(); ++i) {
                        addRow(lines.at(i));
                    }
                    verticalScrollBar()->setValue(verticalScrollBar()->maximum());
                });
    }

private:
    void addRow(const QString& line) {
        const ParsedLogLine parts = ServerLogManager::parseLogLine(line);
        auto* row = new QWidget;
        auto* layout = new QHBoxLayout(row);
        layout->setContentsMargins(0, 0, 0, 0);
        auto* time = new QLabel(parts.time, row);
        time->setFixedWidth(78);
        auto* category = new QLabel(parts.category, row);
        category->setFixedWidth(88);
        layout->addWidget(time);
        layout->addWidget(category);
        layout->addWidget(new QLabel(parts.message, row), 1);
        m_column->addWidget(row);
    }

    ServerLogManager& m_log;
    QVBoxLayout* m_column;
};

struct Round {
    double postMicroseconds;  // log() calls: formatting and posting, on the calling thread
    double applyMicroseconds; // the main thread appending the lines and redrawing the list
};

void settle(QWidget& view) {
    for (int i = 0; i < 3; ++i) {
        QCoreApplication::processEvents();
    }
    view.repaint();
}

Round burst(const std::function<std::unique_ptr<QWidget>()>& makeView) {
    ServerLogManager& log = ServerLogManager::shared();
    log.clearLogs();
    QCoreApplication::sendPostedEvents();
    for (int i = 0; i < filledLines; ++i) {
        log.log(u"Authentication failed for Client %1 from 192.0.2.%2"_s.arg(i).arg(i % 250), u"AUTH"_s);
    }
    QCoreApplication::sendPostedEvents();
    const std::unique_ptr<QWidget> view = makeView();
    view->resize(800, 550);
    view->show();
    settle(*view);

    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < burstLines; ++i) {
        log.log(u"🚫 Authentication rate-limited for Client %1 from 192.0.2.%2"_s.arg(i).arg(i % 250),
                i % 10 == 0 ? u"SECURITY"_s : u"AUTH"_s);
    }
    const qint64 posted = timer.nsecsElapsed();
    timer.restart();
    QCoreApplication::sendPostedEvents();
    settle(*view);
    const qint64 applied = timer.nsecsElapsed();
    return {double(posted) / 1000.0 / burstLines, double(applied) / 1000.0 / burstLines};
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

} // namespace

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication application(argc, argv);
    ServerLogManager::shared().setEchoToStandardOutput(false);
    QTextStream out(stdout);
    out << "platform " << QApplication::platformName() << ", " << filledLines
        << " lines shown, then a burst of " << burstLines << " lines; median of " << rounds
        << " rounds, microseconds per line\n";

    const std::pair<QString, std::function<std::unique_ptr<QWidget>()>> variants[] = {
        {u"log page (QListView + model)"_s,
         [] {
             return std::make_unique<LogsOnlyView>(ServerLogManager::shared());
         }},
        {u"reference: a row of labels per line"_s,
         [] {
             return std::make_unique<LabelRowsLog>(ServerLogManager::shared());
         }},
    };
    for (const auto& [name, makeView] : variants) {
        std::vector<double> post;
        std::vector<double> apply;
        for (int round = 0; round < rounds; ++round) {
            const Round result = burst(makeView);
            post.push_back(result.postMicroseconds);
            apply.push_back(result.applyMicroseconds);
        }
        out << qSetFieldWidth(40) << Qt::left << name << qSetFieldWidth(0) << "log() " << median(post)
            << " us/line, main thread " << median(apply) << " us/line (min "
            << *std::min_element(apply.begin(), apply.end()) << ", max "
            << *std::max_element(apply.begin(), apply.end()) << ")\n";
        out.flush();
    }
    return 0;
}
