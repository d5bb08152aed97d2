#pragma once

#include "hlvp_limits.h"

#include <QString>
#include <QtGlobal>
#include <array>
#include <optional>
#include <type_traits>
#include <utility>

// What every message type declares about itself, and the shapes of field its `fields()` may use
// beyond plain members (hlvp_messages.h explains the scheme).
namespace tellwyn {

// Who sends a message type.
enum class Direction { viewerToAgent, agentToViewer, both };
// Whether a viewer may send a type before its sign-in is accepted; anything else of a known type is
// answered with "notAuthenticated". (A type only the agent sends closes the connection in any phase.)
enum class BeforeSignIn { allowed, refused };

struct MessageTraits {
    const char* wireName; // the map's "type"
    Direction direction;
    BeforeSignIn beforeSignIn;
    const char* typeName; // how log lines name the type
};

// What `field(...)` takes: a member of type QString (at most wire::maxTextBytes unless a limit is
// given), QByteArray (with its limit), quint32, quint64, double, bool or QDateTime, or an optional
// of one of them; a QList of structs that declare `fields()` themselves (with a limit on entries);
// and the shapes below. A struct may also declare `static std::optional<QString> problem(const T&)`:
// what makes a value with well-typed fields still invalid, checked once it has been read.
struct ExactBytes {
    qsizetype bytes; // a byte string of exactly this size
};
struct TextMapLimits {
    qsizetype entries;
    qsizetype keyBytes;
    qsizetype valueBytes;
};
// Text that arrives as a byte string when it is not valid UTF-8 (file names).
template <typename Text> struct TextOrBytes { Text& text; };
template <typename Text> TextOrBytes<Text> textOrBytes(Text& text) {
    return {text};
}
// A sign-in method travelling by name; `name` keeps a name this library does not know.
template <typename Method, typename Name> struct MethodByName {
    Method& method;
    Name& name;
};
template <typename Method, typename Name>
MethodByName<Method, Name> methodByName(Method& method, Name& name) {
    return {method, name};
}
// An enumeration travelling by name, with the table of names; an unknown name is an error.
template <typename Enum, std::size_t count> struct ByName {
    Enum& value;
    const std::array<std::pair<std::remove_const_t<Enum>, const char*>, count>& names;
};
template <typename Enum, std::size_t count>
ByName<Enum, count>
byName(Enum& value, const std::array<std::pair<std::remove_const_t<Enum>, const char*>, count>& names) {
    return {value, names};
}
// An optional record whose fields sit in the enclosing map itself, present when the key
// `presentWhen` is: `field(InPlace{"key"}, member)`.
struct InPlace {
    const char* presentWhen;
};

} // namespace tellwyn
