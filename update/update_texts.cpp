#include "update_texts.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString localizedText(const char* key) {
    return QCoreApplication::translate("TellwynAgent", key);
}

QString downloadingProgressText(double progress) {
    const auto percent = static_cast<qint64>(progress * 100.0);
    return localizedText("Downloading… %1%").arg(percent);
}

} // namespace tellwyn
