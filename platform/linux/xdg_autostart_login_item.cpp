#include "xdg_autostart_login_item.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// Quoting of the Exec key, as freedesktop desktop entries want it: arguments with reserved
// characters are double-quoted, with ", `, $ and \ escaped by a backslash; a literal % is %%.
QString quotedArgument(const QString& argument) {
    QString text = argument;
    text.replace(u'%', u"%%"_s);
    static const QString reserved = u" \t\n\"'\\><~|&;$*?#()`"_s;
    const bool needsQuotes = text.isEmpty() || std::any_of(text.cbegin(), text.cend(),
                                                           [](QChar c) { return reserved.contains(c); });
    if (!needsQuotes) {
        return text;
    }
    QString quoted;
    for (const QChar c : std::as_const(text)) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') {
            quoted += u'\\';
        }
        quoted += c;
    }
    // Inside a desktop file's string value, each backslash is itself escaped.
    quoted.replace(u'\\', u"\\\\"_s);
    return u'"' + quoted + u'"';
}

QString printedError(const QString& kind, const QString& path, const QString& reason) {
    return u"AutostartError.%1(path: \"%2\", reason: \"%3\")"_s.arg(kind, path, reason);
}

} // namespace

XdgAutostartLoginItem::XdgAutostartLoginItem(QString autostartDirectory, QString executable,
                                             QStringList arguments)
    : m_directory(std::move(autostartDirectory)), m_executable(std::move(executable)),
      m_arguments(std::move(arguments)) {
}

XdgAutostartLoginItem XdgAutostartLoginItem::forThisProgram() {
    return XdgAutostartLoginItem(QDir(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation))
                                     .filePath(u"autostart"_s),
                                 QCoreApplication::applicationFilePath(), {u"--start"_s});
}

QString XdgAutostartLoginItem::entryPath() const {
    return QDir(m_directory).filePath(u"tellwyn-agent.desktop"_s);
}

QString XdgAutostartLoginItem::entryText() const {
    QStringList exec{quotedArgument(m_executable)};
    for (const QString& argument : m_arguments) {
        exec.append(quotedArgument(argument));
    }
    return u"[Desktop Entry]\n"
           u"Type=Application\n"
           u"Name=TellwynAgent\n"
           u"Comment=Lets trusted viewers monitor and control this computer\n"
           u"Exec=%1\n"
           u"Icon=tellwyn-agent\n"
           u"Terminal=false\n"
           u"NoDisplay=true\n"
           u"X-GNOME-Autostart-enabled=true\n"_s.arg(exec.join(u' '));
}

std::optional<QString> XdgAutostartLoginItem::registerItem() {
    if (!QDir().mkpath(m_directory)) {
        return printedError(u"folderNotCreated"_s, m_directory, u"cannot create the folder"_s);
    }
    QSaveFile file(entryPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        return printedError(u"writeFailed"_s, entryPath(), file.errorString());
    }
    file.write(entryText().toUtf8());
    if (!file.commit()) {
        return printedError(u"writeFailed"_s, entryPath(), file.errorString());
    }
    return std::nullopt;
}

std::optional<QString> XdgAutostartLoginItem::unregisterItem() {
    QFile file(entryPath());
    if (!file.exists()) {
        return std::nullopt;
    }
    if (!file.remove()) {
        return printedError(u"removeFailed"_s, entryPath(), file.errorString());
    }
    return std::nullopt;
}

} // namespace tellwyn
