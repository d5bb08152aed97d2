#include "hlvp_screen_messages.h"

using namespace Qt::StringLiterals;

namespace tellwyn {

std::optional<QString> HLVPScreenRect::problem(const HLVPScreenRect& r) {
    if (r.w == 0 || r.h == 0) {
        return u"an empty rectangle"_s;
    }
    if (r.encoding == Encoding::solid && r.color > 0xFFFFFF) {
        return u"\"color\" is not 0xRRGGBB"_s;
    }
    if (r.encoding == Encoding::palette && (r.palette.size() < 6 || r.palette.size() % 3 != 0)) {
        return u"\"palette\" does not hold 2 to 256 colours"_s;
    }
    return std::nullopt;
}

std::optional<QString> HLVPCursorShape::problem(const HLVPCursorShape& s) {
    if (s.width > wire::maxCursorSide || s.height > wire::maxCursorSide) {
        return u"the cursor is larger than %1 pixels a side"_s.arg(wire::maxCursorSide);
    }
    if (s.pixels.size() != qsizetype(s.width) * s.height * 4) {
        return u"\"pixels\" does not hold width × height pixels"_s;
    }
    return std::nullopt;
}

} // namespace tellwyn
