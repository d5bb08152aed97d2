#pragma once

namespace tellwyn {

// How many displays the agent could capture. No reachable display counts as zero.
class DisplayProbe {
public:
    virtual ~DisplayProbe() = default;
    virtual int displayCount() const = 0;
};

} // namespace tellwyn
