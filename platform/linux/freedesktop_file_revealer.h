#pragma once

#include "file_revealer.h"

#include <QDBusConnection>
#include <QObject>
#include <QUrl>
#include <functional>

namespace tellwyn {

// Asks the file manager over the session bus (org.freedesktop.FileManager1.ShowItems) to show
// the file selected; where no file manager answers, the file's folder is opened instead.
class FreedesktopFileRevealer final : public QObject, public FileRevealer {
    Q_OBJECT
public:
    using OpenFolder = std::function<void(const QUrl&)>;

    // By default: the session bus, and QDesktopServices for the folder.
    explicit FreedesktopFileRevealer(QObject* parent = nullptr);
    FreedesktopFileRevealer(QDBusConnection bus, OpenFolder openFolder, QObject* parent = nullptr);

    void reveal(const QString& filePath) override;

private:
    QDBusConnection m_bus;
    OpenFolder m_openFolder;
};

} // namespace tellwyn
