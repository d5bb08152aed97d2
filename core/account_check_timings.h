#pragma once

#include <QMutex>
#include <QRandomGenerator>
#include <chrono>
#include <optional>
#include <vector>

namespace tellwyn {

// How long recent refused account checks took. A sign-in that is refused without a check (a
// wrong user name) waits for one of these durations, drawn at random, so that its answer comes
// after the same time as a wrong password's and does not tell which part was wrong. Shared by
// the main thread and the authentication queue.
class AccountCheckTimings {
public:
    static constexpr std::size_t keptSamples = 64;

    void record(std::chrono::microseconds duration) {
        QMutexLocker locker(&m_lock);
        if (m_samples.size() < keptSamples) {
            m_samples.push_back(duration);
        } else {
            m_samples[m_next] = duration;
        }
        m_next = (m_next + 1) % keptSamples;
    }

    // One of the recorded durations at random; none before the first check.
    std::optional<std::chrono::microseconds> draw() const {
        QMutexLocker locker(&m_lock);
        if (m_samples.empty()) {
            return std::nullopt;
        }
        return m_samples[QRandomGenerator::global()->bounded(quint32(m_samples.size()))];
    }

private:
    mutable QMutex m_lock;
    std::vector<std::chrono::microseconds> m_samples;
    std::size_t m_next = 0;
};

} // namespace tellwyn
