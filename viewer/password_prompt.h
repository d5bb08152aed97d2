#pragma once

#include <QString>
#include <optional>

namespace tellwyn {

// Asks for a password on the terminal without echoing it. None when there is no terminal or the
// user ends the input.
std::optional<QString> promptForPassword(const QString& prompt);

// The first line of standard input, without its line break. None at end of input.
std::optional<QString> readPasswordLine();

} // namespace tellwyn
