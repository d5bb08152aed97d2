#pragma once

#include "server_manager.h"

#include <functional>
#include <optional>

namespace tellwyn {

class SingleInstance;

// Runs the agent with its tray item, main window and start-up animations until it quits.
// `prepare` runs on the agent core as soon as it exists.
int runDesktopAgent(const AgentEnvironment& environment, SingleInstance& instance,
                    const std::optional<QString>& updateFeedURL, std::function<void(ServerManager&)> prepare);

} // namespace tellwyn
