#include "update_texts.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace tellwyn {

QString localizedText(const char* key) {
    return QCoreApplication::translate("TellwynAgent", key);
}

QString formatLocalized(const QString& text, const QStringList& arguments) {
    static const QStringList placeholders{u"%@"_s, u"%lld"_s, u"%d"_s};
    QString result;
    result.reserve(text.size());
    qsizetype next = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text.at(i) != u'%') {
            result.append(text.at(i));
            continue;
        }
        if (text.mid(i, 2) == u"%%"_s) {
            result.append(u'%');
            ++i;
            continue;
        }
        bool replaced = false;
        for (const QString& placeholder : placeholders) {
            if (text.mid(i, placeholder.size()) == placeholder) {
                result.append(next < arguments.size() ? arguments.at(next) : QString());
                ++next;
                i += placeholder.size() - 1;
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            result.append(text.at(i));
        }
    }
    return result;
}

QString downloadingProgressText(double progress) {
    const auto percent = static_cast<qint64>(progress * 100.0);
    return formatLocalized(localizedText("Downloading… %lld%%"), {QString::number(percent)});
}

} // namespace tellwyn
