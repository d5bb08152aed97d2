#pragma once

#include <QString>
#include <QStringList>
#include <chrono>

namespace tellwyn {

// Runs the program at `path` and returns what it wrote to standard output, decoded as UTF-8.
// Standard output is read only once the program has ended; standard error goes to a pipe that
// is never read. A program still running after `timeLimit` is sent SIGTERM and given one more
// second. Any failure (cannot start, over its limit, killed, output not UTF-8) gives empty text.
// Blocks the calling thread for the whole run.
QString runTool(const QString& path, const QStringList& arguments, std::chrono::milliseconds timeLimit);

// How many tools this process has started so far (for the benchmark's count of processes).
quint64 toolRunsStarted();

} // namespace tellwyn
