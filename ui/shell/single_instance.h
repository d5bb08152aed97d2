#pragma once

#include <QObject>
#include <functional>

namespace tellwyn {

// One desktop agent per session: the first one owns a name on the session bus; a second launch
// (or the desktop entry's action) asks it to show its main window instead of starting another
// agent, which matters where no panel shows the tray item.
class SingleInstance final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.brevane.TellwynAgent")
public:
    static constexpr char serviceName[] = "com.brevane.TellwynAgent";
    static constexpr char objectPath[] = "/com/brevane/TellwynAgent";

    enum class Claim { owned, heldByAnother, noSessionBus };

    explicit SingleInstance(QObject* parent = nullptr);

    // Takes the session's name. When another agent holds it, asks that one to show its window.
    Claim claim();
    // Runs when another launch asks for the main window.
    void setShowMainWindow(std::function<void()> show) { m_showMainWindow = std::move(show); }

public Q_SLOTS:
    Q_SCRIPTABLE void ShowMainWindow();

private:
    std::function<void()> m_showMainWindow;
};

} // namespace tellwyn
