#include "password_prompt.h"

#include <QByteArray>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

namespace tellwyn {

namespace {

std::optional<QString> readLine(FILE* input) {
    QByteArray line;
    for (int c = std::fgetc(input); c != EOF && c != '\n'; c = std::fgetc(input)) {
        line.append(char(c));
    }
    if (line.isEmpty() && std::feof(input)) {
        return std::nullopt;
    }
    if (line.endsWith('\r')) {
        line.chop(1);
    }
    const QString text = QString::fromUtf8(line);
    line.fill('\0');
    return text;
}

} // namespace

std::optional<QString> promptForPassword(const QString& prompt) {
    FILE* terminal = std::fopen("/dev/tty", "r+");
    if (terminal == nullptr) {
        return std::nullopt;
    }
    const int fd = fileno(terminal);
    termios saved{};
    const bool haveTerminal = tcgetattr(fd, &saved) == 0;
    if (haveTerminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~tcflag_t(ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    std::fputs(prompt.toUtf8().constData(), terminal);
    std::fflush(terminal);
    std::optional<QString> password = readLine(terminal);
    if (haveTerminal) {
        tcsetattr(fd, TCSAFLUSH, &saved);
    }
    std::fclose(terminal);
    return password;
}

std::optional<QString> readPasswordLine() {
    return readLine(stdin);
}

} // namespace tellwyn
