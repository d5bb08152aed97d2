#pragma once

#include <QDateTime>
#include <optional>

namespace tellwyn {

// A value with the time it was measured.
template <typename T> struct TimedCache {
    T value;
    QDateTime timestamp;

    bool isValid(const QDateTime& now, double lifetimeSeconds) const {
        return double(timestamp.msecsTo(now)) / 1000.0 < lifetimeSeconds;
    }
};

// Serves `cache` while it is younger than `lifetimeSeconds`; otherwise runs `probe`, stores its
// result with the time `now` and returns it. A failed probe reports its failure value (false),
// which is kept just as long as a success.
template <typename T, typename Probe>
T readThrough(std::optional<TimedCache<T>>& cache, const QDateTime& now, double lifetimeSeconds,
              Probe&& probe) {
    if (cache && cache->isValid(now, lifetimeSeconds)) {
        return cache->value;
    }
    T value = probe();
    cache = TimedCache<T>{value, now};
    return value;
}

} // namespace tellwyn
