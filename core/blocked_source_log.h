#pragma once

#include <QHash>
#include <QString>
#include <chrono>
#include <functional>
#include <memory>

class QObject;

namespace tellwyn {

class ScheduledTimer;
class Scheduler;

// While a source address is blocked from signing in, a flood of refusals from it must not drown
// the journal: the first refusals of a block are written in full, the rest are counted and written
// as one summary line per source per interval, and once more when the source may try again.
class BlockedSourceLog {
public:
    static constexpr int refusalsInFull = 3;
    static constexpr std::chrono::seconds summaryInterval{60};

    using WriteLine = std::function<void(const QString& line)>;

    BlockedSourceLog(Scheduler& scheduler, QObject* context, WriteLine write);
    ~BlockedSourceLog();

    // A refusal of `host` because it is blocked; true when it is to be written in full.
    bool noteRefusal(const QString& host);
    // `host` is no longer blocked: its pending count is written now and its refusals start afresh.
    void release(const QString& host);
    // True while the lines about `host`'s connections are left out in favour of the summary.
    bool isQuiet(const QString& host) const;

private:
    struct Source {
        int refusalsThisBlock = 0;
        qint64 countedSinceSummary = 0;
    };

    void writeSummaries();
    void writeSummary(const QString& host, Source& source);

    Scheduler& m_scheduler;
    QObject* m_context;
    WriteLine m_write;
    QHash<QString, Source> m_sources;
    std::unique_ptr<ScheduledTimer> m_summaryTimer;
};

} // namespace tellwyn
