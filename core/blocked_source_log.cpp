#include "blocked_source_log.h"

#include "clock.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

BlockedSourceLog::BlockedSourceLog(Scheduler& scheduler, QObject* context, WriteLine write)
    : m_scheduler(scheduler), m_context(context), m_write(std::move(write)) {
}

BlockedSourceLog::~BlockedSourceLog() = default;

bool BlockedSourceLog::noteRefusal(const QString& host) {
    if (!m_summaryTimer) {
        m_summaryTimer = m_scheduler.repeating(summaryInterval, m_context, [this] { writeSummaries(); });
    }
    Source& source = m_sources[host];
    if (++source.refusalsThisBlock <= refusalsInFull) {
        return true;
    }
    ++source.countedSinceSummary;
    return false;
}

void BlockedSourceLog::release(const QString& host) {
    const auto found = m_sources.find(host);
    if (found == m_sources.end()) {
        return;
    }
    writeSummary(host, *found);
    m_sources.erase(found);
}

bool BlockedSourceLog::isQuiet(const QString& host) const {
    const auto found = m_sources.constFind(host);
    return found != m_sources.cend() && found->refusalsThisBlock > refusalsInFull;
}

void BlockedSourceLog::writeSummaries() {
    // A source not counted for a whole interval has stopped: it starts afresh next time.
    m_sources.removeIf([this](QHash<QString, Source>::iterator it) {
        if (it->countedSinceSummary == 0) {
            return true;
        }
        writeSummary(it.key(), *it);
        return false;
    });
    if (m_sources.isEmpty()) {
        m_summaryTimer.reset();
    }
}

void BlockedSourceLog::writeSummary(const QString& host, Source& source) {
    if (source.countedSinceSummary > 0) {
        m_write(
            u"Refused %1 more sign-in attempts from %2 while it was blocked"_s.arg(source.countedSinceSummary)
                .arg(host));
        source.countedSinceSummary = 0;
    }
}

} // namespace tellwyn
