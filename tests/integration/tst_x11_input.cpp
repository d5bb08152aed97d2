// Input injected into a real X server (Xvfb, started here) and read back by an X application,
// x11_input_recorder, as that application sees it: on the US, German and French layouts and a
// two-group one, by symbol and by physical key, text, pointer, wheel, and nothing left held.

#include "linux/x11_input_injector.h"

#include <QDeadlineTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>
#include <functional>
#include <memory>
#include <numeric>
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

using namespace Qt::StringLiterals;
using namespace tellwyn;

namespace {

constexpr int patienceMs = 60'000;
constexpr uint16_t anyButton =
    XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_2 | XCB_BUTTON_MASK_3 | XCB_BUTTON_MASK_4 | XCB_BUTTON_MASK_5;

xkb_keysym_t keysymNamed(const QString& name) {
    return xkb_keysym_from_name(name.toLatin1().constData(), XKB_KEYSYM_NO_FLAGS);
}

bool isModifierName(const QString& name) {
    static const QStringList modifiers{u"Shift_L"_s, u"Shift_R"_s, u"Control_L"_s,        u"Control_R"_s,
                                       u"Alt_L"_s,   u"Alt_R"_s,   u"ISO_Level3_Shift"_s, u"Mode_switch"_s,
                                       u"Meta_L"_s,  u"Super_L"_s, u"Caps_Lock"_s};
    return modifiers.contains(name);
}

} // namespace

class TestX11Input : public QObject {
    Q_OBJECT

    QProcess xvfb;
    QProcess recorder;
    xcb_connection_t* observer = nullptr; // asks the server what is held
    std::unique_ptr<X11InputInjector> injector;
    QString currentLayout;

    // The recorder's next line that `wanted` accepts, split into fields; empty when none came
    // within the deadline.
    QStringList nextLine(const std::function<bool(const QStringList&)>& wanted) {
        const QDeadlineTimer deadline(patienceMs);
        while (recorder.canReadLine() ||
               recorder.waitForReadyRead(static_cast<int>(deadline.remainingTime()))) {
            while (recorder.canReadLine()) {
                const QStringList fields = QString::fromUtf8(recorder.readLine()).trimmed().split(u' ');
                if (wanted(fields)) {
                    return fields;
                }
            }
        }
        return {};
    }

    // The next press of a key other than a modifier: keycode, keysym name, unused modifiers.
    QStringList nextSymbolPress() {
        return nextLine([](const QStringList& fields) {
                   return fields.first() == u"key-press"_s && !isModifierName(fields.value(2));
               })
            .mid(1);
    }

    QString nextPointerEvent() {
        return nextLine([](const QStringList& fields) { return !fields.first().startsWith(u"key-"_s); })
            .join(u' ');
    }

    int keysDown() {
        std::unique_ptr<xcb_query_keymap_reply_t, decltype(&std::free)> reply(
            xcb_query_keymap_reply(observer, xcb_query_keymap(observer), nullptr), &std::free);
        return std::accumulate(std::begin(reply->keys), std::end(reply->keys), 0,
                               [](int down, uint8_t byte) { return down + std::popcount(byte); });
    }

    // The buttons and modifiers held, as the pointer's state mask.
    uint16_t pointerState() {
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(observer)).data->root;
        std::unique_ptr<xcb_query_pointer_reply_t, decltype(&std::free)> reply(
            xcb_query_pointer_reply(observer, xcb_query_pointer(observer, root), nullptr), &std::free);
        return reply->mask;
    }

    bool keymapShows(xkb_keysym_t keysym) {
        const xcb_setup_t* setup = xcb_get_setup(observer);
        const auto count = static_cast<uint8_t>(setup->max_keycode - setup->min_keycode + 1);
        std::unique_ptr<xcb_get_keyboard_mapping_reply_t, decltype(&std::free)> reply(
            xcb_get_keyboard_mapping_reply(
                observer, xcb_get_keyboard_mapping(observer, setup->min_keycode, count), nullptr),
            &std::free);
        const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(reply.get());
        const int length = xcb_get_keyboard_mapping_keysyms_length(reply.get());
        return std::find(syms, syms + length, keysym) != syms + length;
    }

    void useLayout(const QString& wanted) {
        if (wanted != currentLayout) {
            QCOMPARE(QProcess::execute(u"setxkbmap"_s, {u"-layout"_s, wanted}), 0);
            currentLayout = wanted;
        }
    }

private Q_SLOTS:
    void initTestCase() {
        const QString server = QStandardPaths::findExecutable(u"Xvfb"_s);
        if (server.isEmpty() || QStandardPaths::findExecutable(u"setxkbmap"_s).isEmpty()) {
            QSKIP("needs Xvfb and setxkbmap: run scripts/setup.sh test");
        }
        // -noreset: the layout set by setxkbmap would be lost when it disconnects.
        xvfb.start(server, {u"-displayfd"_s, u"1"_s, u"-screen"_s, u"0"_s, u"800x600x24"_s, u"-nolisten"_s,
                            u"tcp"_s, u"-noreset"_s});
        QVERIFY(xvfb.waitForReadyRead(patienceMs));
        qputenv("DISPLAY", ":" + xvfb.readLine().trimmed());
        observer = xcb_connect(nullptr, nullptr);
        QCOMPARE(xcb_connection_has_error(observer), 0);
        recorder.start(QStringLiteral(X11_INPUT_RECORDER), {});
        QCOMPARE(nextLine([](const QStringList&) { return true; }), QStringList{u"ready"_s});
        injector = std::make_unique<X11InputInjector>();
        QVERIFY(injector->isUsable());
    }

    void cleanupTestCase() {
        injector.reset();
        if (observer != nullptr) {
            xcb_disconnect(observer);
        }
        recorder.kill();
        recorder.waitForFinished();
        xvfb.terminate();
        xvfb.waitForFinished();
    }

    // One table per layout (symbols it lacks among them): what the viewer holds, the key it sends (a keysym,
    // and an evdev code for physical-key mode), and what the application receives: the keysym, the modifiers
    // left for it (Control 0x4, Mod1 0x8) and how many keys stay down once the key is released.
    void keysArriveAsMeant_data() {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<QStringList>("held");
        QTest::addColumn<QString>("sent");
        QTest::addColumn<uint>("evdevCode");
        QTest::addColumn<QString>("received");
        QTest::addColumn<uint>("modifiers");
        QTest::addColumn<int>("downAfter");
        const auto row = [](const char* name, const QString& layout, const QStringList& held,
                            const QString& sent, const QString& received = {}, uint modifiers = 0,
                            int downAfter = 0, uint evdev = 0) {
            QTest::newRow(name) << layout << held << sent << evdev << (received.isEmpty() ? sent : received)
                                << modifiers << downAfter;
        };
        const QStringList none;
        for (const char* same : {"a", "A", "1", "exclam", "less", "greater", "at", "bar", "asciitilde",
                                 "EuroSign", "eacute", "U263A"}) {
            row(qPrintable(u"us "_s + QLatin1StringView(same)), u"us"_s, none, QString::fromLatin1(same));
        }
        row("us 1 with Shift held", u"us"_s, {u"Shift_L"_s}, u"1"_s, {}, 0, 1);
        row("us c with Control held", u"us"_s, {u"Control_L"_s}, u"c"_s, {}, 0x4, 1);
        row("us physical Q", u"us"_s, none, u"a"_s, u"q"_s, 0, 0, 16);

        for (const char* same :
             {"at",           "EuroSign",   "less",    "greater", "bar", "backslash",  "braceleft",
              "bracketright", "asciitilde", "y",       "z",       "Z",   "odiaeresis", "Udiaeresis",
              "ssharp",       "question",   "section", "degree",  "mu",  "eacute",     "U263A"}) {
            row(qPrintable(u"de "_s + QLatin1StringView(same)), u"de"_s, none, QString::fromLatin1(same));
        }
        row("de Control_L Alt_R at is AltGr", u"de"_s, {u"Control_L"_s, u"Alt_R"_s}, u"at"_s);
        row("de Control_L Alt_R EuroSign is AltGr", u"de"_s, {u"Control_L"_s, u"Alt_R"_s}, u"EuroSign"_s);
        row("de Control_L Alt_R Delete stays Ctrl+Alt", u"de"_s, {u"Control_L"_s, u"Alt_R"_s}, u"Delete"_s,
            {}, 0xc, 2);
        row("de physical Y", u"de"_s, none, u"y"_s, u"z"_s, 0, 0, 21);

        for (const char* same :
             {"1",        "2",      "9",  "0",        "eacute",     "egrave",    "agrave",
              "ccedilla", "ugrave", "at", "EuroSign", "numbersign", "braceleft", "less",
              "greater",  "a",      "q",  "A",        "M",          "exclam",    "section"}) {
            row(qPrintable(u"fr "_s + QLatin1StringView(same)), u"fr"_s, none, QString::fromLatin1(same));
        }
        row("fr physical Q", u"fr"_s, none, u"q"_s, u"a"_s, 0, 0, 16);

        // A symbol only the second group has, and the first group still in use after it.
        row("us,de odiaeresis", u"us,de"_s, none, u"odiaeresis"_s);
        row("us,de physical Y", u"us,de"_s, none, u"z"_s, u"y"_s, 0, 0, 21);
    }

    void keysArriveAsMeant() {
        QFETCH(QString, layout);
        QFETCH(QStringList, held);
        QFETCH(QString, sent);
        QFETCH(uint, evdevCode);
        QFETCH(QString, received);
        QFETCH(uint, modifiers);
        QFETCH(int, downAfter);
        useLayout(layout);
        injector->setKeyMode(evdevCode != 0 ? InputInjector::KeyMode::byPhysicalKey
                                            : InputInjector::KeyMode::bySymbol);
        for (const QString& name : held) {
            QVERIFY(injector->pressKey(keysymNamed(name), 0));
        }
        QVERIFY(injector->pressKey(keysymNamed(sent), evdevCode));
        injector->releaseKey(keysymNamed(sent), evdevCode);

        const QStringList press = nextSymbolPress();
        QCOMPARE(press.value(1), received);
        QCOMPARE(press.value(2), u"0x%1"_s.arg(modifiers, 0, 16));
        QVERIFY(!nextLine([&](const QStringList& fields) {
                     return fields.first() == u"key-release"_s && fields.value(1) == press.value(0);
                 }).isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(keysDown(), downAfter, patienceMs);

        std::for_each(held.rbegin(), held.rend(),
                      [&](const QString& name) { injector->releaseKey(keysymNamed(name), 0); });
        QTRY_COMPARE_WITH_TIMEOUT(keysDown(), 0, patienceMs);
    }

    // With the user's Caps Lock on, symbols still arrive as sent, also on borrowed keycodes, and
    // Caps Lock is left on.
    void capsLockIsWorkedWithNeverToggled() {
        useLayout(u"us"_s);
        injector->setKeyMode(InputInjector::KeyMode::bySymbol);
        QCOMPARE(QProcess::execute(u"xdotool"_s, {u"key"_s, u"Caps_Lock"_s}), 0);
        QTRY_VERIFY_WITH_TIMEOUT(pointerState() & XCB_MOD_MASK_LOCK, patienceMs);
        for (const QString& name : {u"a"_s, u"A"_s, u"1"_s, u"eacute"_s, u"Eacute"_s, u"odiaeresis"_s}) {
            QVERIFY(injector->pressKey(keysymNamed(name), 0));
            injector->releaseKey(keysymNamed(name), 0);
            QCOMPARE(nextSymbolPress().value(1), name);
        }
        QVERIFY(pointerState() & XCB_MOD_MASK_LOCK);
        QCOMPARE(QProcess::execute(u"xdotool"_s, {u"key"_s, u"Caps_Lock"_s}), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!(pointerState() & XCB_MOD_MASK_LOCK), patienceMs);
    }

    // More symbols the layout lacks than it has spare keycodes: the spare ones are lent in turn.
    // The text goes in pieces an application keeps up with before a keycode is lent again.
    void textIsTypedSymbolBySymbol() {
        useLayout(u"de"_s);
        injector->setKeyMode(InputInjector::KeyMode::bySymbol);
        QStringList expected{u"U1E9E"_s, u"U263A"_s, u"eacute"_s, u"EuroSign"_s,
                             u"at"_s,    u"less"_s,  u"Return"_s};
        QString text = u"ẞ☺é€@<\n"_s;
        for (char32_t character = U'一'; character < U'一' + 40; ++character) {
            text += QString::fromUcs4(&character, 1);
            expected += u"U"_s + QString::number(static_cast<uint>(character), 16).toUpper();
        }
        const QList<uint> characters = text.toUcs4();
        for (qsizetype start = 0; start < characters.size(); start += 8) {
            const QList<uint> piece = characters.mid(start, 8);
            QVERIFY(injector->typeText(
                QString::fromUcs4(reinterpret_cast<const char32_t*>(piece.data()), piece.size())));
            for (qsizetype i = start; i < start + piece.size(); ++i) {
                QCOMPARE(nextSymbolPress().value(1), expected.at(i));
            }
        }
        QTRY_COMPARE_WITH_TIMEOUT(keysDown(), 0, patienceMs);
    }

    void pointerLandsOnThePixelAndTheWheelTurnsInWholeClicks() {
        injector->movePointer(321, 123);
        QCOMPARE(nextPointerEvent(), u"motion 321 123"_s);
        injector->scroll(0, 60);
        injector->scroll(0, 60); // two half clicks up make one
        injector->scroll(-30, 0);
        injector->scroll(-90, 0);  // one click right
        injector->scroll(0, -250); // two clicks down; the rest waits for more
        for (const int button : {4, 7, 5, 5}) {
            QCOMPARE(nextPointerEvent(), u"button-press %1 321 123"_s.arg(button));
            QCOMPARE(nextPointerEvent(), u"button-release %1 321 123"_s.arg(button));
        }
        injector->movePointer(0, 599);
        QCOMPARE(nextPointerEvent(), u"motion 0 599"_s);
    }

    void releaseAllLeavesNothingHeldAndGivesBackBorrowedKeycodes() {
        useLayout(u"de"_s);
        injector->setKeyMode(InputInjector::KeyMode::bySymbol);
        QVERIFY(injector->pressKey(keysymNamed(u"at"_s), 0));
        QVERIFY(injector->pressKey(keysymNamed(u"U2603"_s), 0));
        QVERIFY(injector->pressKey(keysymNamed(u"Shift_L"_s), 0));
        injector->setKeyMode(InputInjector::KeyMode::byPhysicalKey);
        QVERIFY(injector->pressKey(0, 30));
        injector->setButtonPressed(InputInjector::Button::left, true);
        injector->setButtonPressed(InputInjector::Button::right, true);
        QTRY_COMPARE_WITH_TIMEOUT(keysDown(), 4, patienceMs);
        QTRY_COMPARE_WITH_TIMEOUT(pointerState() & anyButton, XCB_BUTTON_MASK_1 | XCB_BUTTON_MASK_3,
                                  patienceMs);
        QVERIFY(keymapShows(keysymNamed(u"U2603"_s)));

        injector->releaseAll();
        QTRY_COMPARE_WITH_TIMEOUT(keysDown(), 0, patienceMs);
        QTRY_COMPARE_WITH_TIMEOUT(pointerState() & anyButton, 0, patienceMs);
        QVERIFY(!keymapShows(keysymNamed(u"U2603"_s)));
    }
};

QTEST_GUILESS_MAIN(TestX11Input)
#include "tst_x11_input.moc"
