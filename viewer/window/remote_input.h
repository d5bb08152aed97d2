#pragma once

#include "hlvp_messages.h"

#include <QObject>
#include <functional>
#include <map>
#include <set>

class QKeyEvent;

namespace tellwyn {

class ScreenView;

// What the user does in a ScreenView, as the agent's input events: the pointer and buttons in the
// picture's own pixels whatever the view's scaling, the wheel, and keys with both their symbol
// and their place. While the view has the focus it holds the keyboard, so that shortcuts such as
// Alt+Tab reach the remote machine rather than this desktop; Ctrl+Alt+Shift pressed together
// gives the keyboard back. Everything it pressed is let go when the view loses the focus or the
// keyboard is given back, so nothing stays pressed on the remote machine.
class RemoteInput : public QObject {
    Q_OBJECT
public:
    using Send = std::function<void(const InputEventMessage&)>;

    RemoteInput(ScreenView& view, Send send, QObject* parent = nullptr);

    bool holdsKeyboard() const { return m_holdsKeyboard; }
    // Sends a release for every key and button pressed and not yet released.
    void releaseAll();

Q_SIGNALS:
    void holdsKeyboardChanged(bool holds);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool pointerEvent(QEvent* event);
    bool keyEvent(QKeyEvent* event);
    void holdKeyboard(bool hold);
    InputEventMessage at(const QString& kind, QPointF viewportPosition) const;

    ScreenView& m_view;
    Send m_send;
    bool m_holdsKeyboard = false;
    // Keys pressed on the remote machine, by their place (a modifier let go first may change the
    // symbol a key's release reads): the symbol its press sent, and Qt's key for the release chord.
    struct HeldKey {
        quint32 keysym;
        int qtKey;
    };
    std::map<quint32, HeldKey> m_keys;
    std::set<quint32> m_buttons;
};

} // namespace tellwyn
