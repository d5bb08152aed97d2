#pragma once

#include <QString>
#include <QStringList>

namespace tellwyn {

// Looks a user-visible text up in the application's string table; the English text is the key.
QString localizedText(const char* key);

// "Downloading… 42%": the fraction done, as a whole percentage rounded down.
QString downloadingProgressText(double progress);

} // namespace tellwyn
