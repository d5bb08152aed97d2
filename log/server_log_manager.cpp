#include "server_log_manager.h"

#include "system_clipboard.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QThread>
#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace tellwyn {

ServerLogManager& ServerLogManager::shared() {
    static ServerLogManager* const instance = [] {
        auto* manager = new ServerLogManager;
        // Appends are posted to the main thread whichever thread made the first call.
        if (QCoreApplication::instance() != nullptr) {
            manager->moveToThread(QCoreApplication::instance()->thread());
        }
        return manager;
    }();
    return *instance;
}

ServerLogManager::ServerLogManager() = default;

QString ServerLogManager::formatTime(const QTime& time, const QLocale& locale) {
    // The locale's short time format with seconds added after the minutes, written with the
    // locale's own separator. (The long format carries a time zone, and cutting it out leaves
    // stray punctuation or words behind in several locales.)
    QString format = locale.timeFormat(QLocale::ShortFormat);
    if (!format.contains(u's')) {
        static const QRegularExpression minutes(u"(.)(m+)"_s);
        const QRegularExpressionMatch match = minutes.match(format);
        if (match.hasMatch()) {
            format.insert(match.capturedEnd(2), match.captured(1) + u"ss"_s);
        } else {
            format = u"HH:mm:ss"_s;
        }
    }
    return locale.toString(time, format).trimmed();
}

QString ServerLogManager::formatLine(const QDateTime& when, const QString& category, const QString& message,
                                     const QLocale& locale) {
    return u"["_s + formatTime(when.time(), locale) + u"] ["_s + category + u"] "_s + message;
}

ParsedLogLine ServerLogManager::parseLogLine(const QString& line) {
    const qsizetype first = line.indexOf(u']');
    const qsizetype second = first < 0 ? -1 : line.indexOf(u']', first + 1);
    if (second < 0) {
        return {QString(), u"INFO"_s, line};
    }
    auto trimmed = [](QStringView text, QStringView characters) {
        qsizetype begin = 0;
        qsizetype end = text.size();
        while (begin < end && characters.contains(text[begin])) {
            ++begin;
        }
        while (end > begin && characters.contains(text[end - 1])) {
            --end;
        }
        return text.sliced(begin, end - begin).toString();
    };
    const QStringView view(line);
    return {trimmed(view.first(first), u"[ "), trimmed(view.sliced(first + 1, second - first - 1), u"[ ]"),
            trimmed(view.sliced(second + 1), u" \t")};
}

QString ServerLogManager::escapeControlCharacters(const QString& text) {
    const auto needsEscape = [](char16_t c) {
        return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x061c || c == 0x200e || c == 0x200f ||
               (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
    };
    if (std::none_of(text.cbegin(), text.cend(), [&](QChar c) { return needsEscape(c.unicode()); })) {
        return text;
    }
    QString escaped;
    escaped.reserve(text.size() + 16);
    for (const QChar c : text) {
        const char16_t code = c.unicode();
        if (!needsEscape(code)) {
            escaped += c;
        } else if (code == u'\n') {
            escaped += u"\\n"_s;
        } else if (code == u'\r') {
            escaped += u"\\r"_s;
        } else if (code == u'\t') {
            escaped += u"\\t"_s;
        } else if (code < 0x100) {
            escaped += u"\\x%1"_s.arg(int(code), 2, 16, QChar(u'0'));
        } else {
            escaped += u"\\u{%1}"_s.arg(int(code), 4, 16, QChar(u'0'));
        }
    }
    return escaped;
}

void ServerLogManager::log(const QString& message, const QString& category) {
    const QString line = formatLine(QDateTime::currentDateTime(), escapeControlCharacters(category),
                                    escapeControlCharacters(message));
    QMetaObject::invokeMethod(
        this, [this, line] { append(line); }, Qt::QueuedConnection);
    if (m_echo.load(std::memory_order_relaxed)) {
        // One write per line so that lines from different threads never interleave.
        const QByteArray bytes = line.toUtf8() + '\n';
        std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
        std::fflush(stdout);
    }
}

void ServerLogManager::append(const QString& line) {
    m_logs.append(line);
    const qsizetype dropped = std::max<qsizetype>(m_logs.size() - maxLogs, 0);
    if (dropped > 0) {
        m_logs.remove(0, dropped);
    }
    Q_EMIT linesAppended(1, dropped);
    Q_EMIT logsChanged();
}

void ServerLogManager::clearLogs() {
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_logs.clear();
            Q_EMIT logsChanged();
        },
        Qt::QueuedConnection);
}

void ServerLogManager::copyLogsToClipboard() {
    if (m_systemClipboard != nullptr) {
        m_systemClipboard->setString(m_logs.join(u'\n'));
    }
    log(u"Logs copied to clipboard"_s, u"INFO"_s);
}

} // namespace tellwyn
