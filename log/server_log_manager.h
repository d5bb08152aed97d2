#pragma once

#include <QDateTime>
#include <QLocale>
#include <QObject>
#include <QStringList>
#include <atomic>

namespace tellwyn {

class SystemClipboard;

// A log line read back into its three parts.
struct ParsedLogLine {
    QString time;
    QString category;
    QString message;
    friend bool operator==(const ParsedLogLine&, const ParsedLogLine&) = default;
};

// The agent's activity log: in memory, capped, shown live by the log screen and copied to
// standard output. `log` may be called from any thread; the list itself changes only on the
// thread the manager lives on (the main thread).
class ServerLogManager final : public QObject {
    Q_OBJECT
public:
    static constexpr qsizetype maxLogs = 1000;

    static ServerLogManager& shared();

    void log(const QString& message, const QString& category);
    void clearLogs();
    void copyLogsToClipboard();

    // Oldest first. Main thread only.
    const QStringList& logs() const { return m_logs; }

    // Where copyLogsToClipboard puts the text; set once at start-up.
    void setSystemClipboard(SystemClipboard* systemClipboard) { m_systemClipboard = systemClipboard; }
    // Whether each line is also written to standard output (on by default).
    void setEchoToStandardOutput(bool enabled) { m_echo = enabled; }

    // The time of day as the log writes it: hours, minutes and seconds in the locale's style.
    static QString formatTime(const QTime& time, const QLocale& locale);
    static QString formatLine(const QDateTime& when, const QString& category, const QString& message,
                              const QLocale& locale = QLocale::system());
    static ParsedLogLine parseLogLine(const QString& line);
    // `text` with every character that could forge or hide part of a line written out as an
    // escape: C0 and C1 controls, DEL, line and paragraph separators, and the bidirectional marks,
    // embeddings, overrides and isolates. Every line passes through it, so texts that came from
    // the network cannot start a line of their own or drive the terminal.
    static QString escapeControlCharacters(const QString& text);

Q_SIGNALS:
    void logsChanged();
    // Emitted before logsChanged when lines were added at the end, with how many older lines
    // the cap dropped from the front at the same time.
    void linesAppended(qsizetype appended, qsizetype dropped);

private:
    ServerLogManager();
    void append(const QString& line);

    QStringList m_logs;
    SystemClipboard* m_systemClipboard = nullptr;
    std::atomic<bool> m_echo{true};
};

} // namespace tellwyn
