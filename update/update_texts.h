#pragma once

#include <QString>
#include <QStringList>

namespace tellwyn {

// Looks a user-visible text up in the application's string table; the English text is the key.
QString localizedText(const char* key);

// Fills the printf-style placeholders of an already looked-up text, in order: %@, %lld and %d take
// the next argument, %% is a percent sign. Translators keep the placeholders as they are.
QString formatLocalized(const QString& text, const QStringList& arguments);

// "Downloading… 42%": the fraction done, as a whole percentage rounded down.
QString downloadingProgressText(double progress);

} // namespace tellwyn
