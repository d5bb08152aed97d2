#include "remote_input.h"

#include "screen_view.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QWheelEvent>
#include <algorithm>

using namespace Qt::StringLiterals;

namespace tellwyn {

namespace {

// X keycodes are evdev codes moved up by 8.
constexpr quint32 evdevToX11Keycode = 8;

std::optional<quint32> buttonNumber(Qt::MouseButton button) {
    switch (button) {
    case Qt::LeftButton:
        return 1;
    case Qt::MiddleButton:
        return 2;
    case Qt::RightButton:
        return 3;
    case Qt::BackButton:
        return 8;
    case Qt::ForwardButton:
        return 9;
    default:
        return std::nullopt;
    }
}

} // namespace

RemoteInput::RemoteInput(ScreenView& view, Send send, QObject* parent)
    : QObject(parent), m_view(view), m_send(std::move(send)) {
    m_view.setFocusPolicy(Qt::StrongFocus);
    m_view.setAttribute(Qt::WA_InputMethodEnabled);
    m_view.installEventFilter(this);
    m_view.viewport()->installEventFilter(this);
}

InputEventMessage RemoteInput::at(const QString& kind, QPointF viewportPosition) const {
    InputEventMessage message;
    message.kind = kind;
    if (const std::optional<QPoint> position = m_view.toScreen(viewportPosition)) {
        message.x = position->x();
        message.y = position->y();
    }
    return message;
}

bool RemoteInput::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_view.viewport()) {
        return pointerEvent(event);
    }
    switch (event->type()) {
    case QEvent::ShortcutOverride:
        // Every key goes to the remote machine, the window's own shortcuts included.
        event->accept();
        return true;
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
        return keyEvent(static_cast<QKeyEvent*>(event));
    case QEvent::InputMethod: {
        const QString text = static_cast<QInputMethodEvent*>(event)->commitString();
        if (!text.isEmpty()) {
            InputEventMessage message;
            message.kind = u"text"_s;
            message.text = text;
            m_send(message);
        }
        return true;
    }
    case QEvent::FocusIn:
        holdKeyboard(true);
        return false;
    case QEvent::FocusOut:
        holdKeyboard(false);
        releaseAll();
        return false;
    default:
        return false;
    }
}

bool RemoteInput::pointerEvent(QEvent* event) {
    switch (event->type()) {
    case QEvent::MouseMove: {
        m_send(at(u"pointerMove"_s, static_cast<QMouseEvent*>(event)->position()));
        return true;
    }
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseButtonRelease: {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        const std::optional<quint32> button = buttonNumber(mouse->button());
        if (!button) {
            return true;
        }
        const bool press = event->type() != QEvent::MouseButtonRelease;
        if (press && !m_holdsKeyboard) {
            m_view.setFocus(Qt::MouseFocusReason);
            holdKeyboard(true);
        }
        if (!press && m_buttons.erase(*button) == 0) {
            return true; // pressed before the view had it
        }
        if (press) {
            m_buttons.insert(*button);
        }
        InputEventMessage message = at(press ? u"buttonPress"_s : u"buttonRelease"_s, mouse->position());
        message.button = *button;
        m_send(message);
        return true;
    }
    case QEvent::Wheel: {
        const auto* wheel = static_cast<QWheelEvent*>(event);
        InputEventMessage message = at(u"wheel"_s, wheel->position());
        // Qt's angle is the protocol's: 120 a click, positive up and to the left.
        message.wheelX = wheel->angleDelta().x();
        message.wheelY = wheel->angleDelta().y();
        m_send(message);
        return true;
    }
    default:
        return false;
    }
}

bool RemoteInput::keyEvent(QKeyEvent* event) {
    // The remote machine repeats a held key by itself.
    if (event->isAutoRepeat()) {
        return true;
    }
    const quint32 keysym = event->nativeVirtualKey();
    const quint32 scanCode = event->nativeScanCode();
    const quint32 evdev = scanCode > evdevToX11Keycode ? scanCode - evdevToX11Keycode : 0;
    if (keysym == 0 && evdev == 0) {
        if (event->type() == QEvent::KeyPress && !event->text().isEmpty()) {
            InputEventMessage message;
            message.kind = u"text"_s;
            message.text = event->text();
            m_send(message);
        }
        return true;
    }
    // Without a place (a viewer not on X11), the symbol names the key.
    const quint32 place = evdev != 0 ? evdev : keysym | 0x80000000U;
    InputEventMessage message;
    message.keyCode = evdev;
    if (event->type() == QEvent::KeyPress) {
        m_keys.insert_or_assign(place, HeldKey{keysym, event->key()});
        message.kind = u"keyPress"_s;
        message.keysym = keysym;
        m_send(message);
        const auto held = [this](int qtKey) {
            return std::any_of(m_keys.begin(), m_keys.end(),
                               [qtKey](const auto& entry) { return entry.second.qtKey == qtKey; });
        };
        if (held(Qt::Key_Control) && held(Qt::Key_Alt) && held(Qt::Key_Shift)) {
            releaseAll();
            holdKeyboard(false);
        }
    } else if (const auto pressed = m_keys.find(place); pressed != m_keys.end()) {
        message.kind = u"keyRelease"_s;
        message.keysym = pressed->second.keysym;
        m_keys.erase(pressed);
        m_send(message);
    }
    return true;
}

void RemoteInput::holdKeyboard(bool hold) {
    if (hold == m_holdsKeyboard) {
        return;
    }
    m_holdsKeyboard = hold;
    if (hold) {
        m_view.grabKeyboard();
    } else {
        m_view.releaseKeyboard();
    }
    Q_EMIT holdsKeyboardChanged(hold);
}

void RemoteInput::releaseAll() {
    for (const auto& [place, key] : m_keys) {
        InputEventMessage message;
        message.kind = u"keyRelease"_s;
        message.keysym = key.keysym;
        message.keyCode = place & 0x80000000U ? 0 : place;
        m_send(message);
    }
    for (const quint32 button : m_buttons) {
        InputEventMessage message;
        message.kind = u"buttonRelease"_s;
        message.button = button;
        m_send(message);
    }
    m_keys.clear();
    m_buttons.clear();
}

} // namespace tellwyn
