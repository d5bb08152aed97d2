#pragma once

// Waits for real events (network traffic, worker threads, other processes) with a deadline that a
// loaded two-core machine meets; a working agent answers far sooner. Virtual-time tests advance
// the clock instead of waiting.

#include <QTest>

namespace tellwyn::testing {
inline constexpr int eventDeadlineMs = 60'000;
} // namespace tellwyn::testing

#define TRY_VERIFY(expr) QTRY_VERIFY_WITH_TIMEOUT(expr, ::tellwyn::testing::eventDeadlineMs)
#define TRY_VERIFY2(expr, message)                                                                           \
    QTRY_VERIFY2_WITH_TIMEOUT(expr, message, ::tellwyn::testing::eventDeadlineMs)
#define TRY_COMPARE(expr, expected)                                                                          \
    QTRY_COMPARE_WITH_TIMEOUT(expr, expected, ::tellwyn::testing::eventDeadlineMs)
