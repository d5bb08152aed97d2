#pragma once

// Reading the activity log in tests, and small helpers for tests on loopback.

#include <QStringList>

namespace tellwyn::testing {

// A port on 127.0.0.1 that nothing listens on at the time of the call.
quint16 freeLoopbackPort();

// The log as "[CATEGORY] message" lines, without the time, after running posted work.
QStringList loggedLines();

// True when `expected` appear in the log in this order (other lines may come between); prints
// the log otherwise.
bool loggedInOrder(const QStringList& expected);

// How many log lines are exactly `line`.
qsizetype loggedCount(const QString& line);

} // namespace tellwyn::testing
