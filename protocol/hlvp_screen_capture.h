#pragma once

#include "hlvp_error.h"
#include "hlvp_messages.h"

#include <functional>
#include <variant>

class QObject;

namespace tellwyn {

// Takes pictures of the machine's displays.
class HLVPScreenCapture {
public:
    using Result = std::variant<ScreenCaptureMessage, HLVPError>;
    using Completion = std::function<void(Result result)>;

    virtual ~HLVPScreenCapture() = default;
    // Captures display `displayID` (0: the main one) as JPEG of `quality` (0 to 1); `done` runs
    // later on `context`'s thread.
    virtual void captureScreen(quint32 displayID, double quality, QObject* context, Completion done) = 0;
    // Lets go of what the captures held.
    virtual void cleanup() = 0;
};

} // namespace tellwyn
