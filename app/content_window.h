#pragma once

#include <QWidget>
#include <memory>

namespace tellwyn {

class Preferences;
class ServerManager;

// A plain 800 × 600 window around the main window's content, opened when the environment
// variable TELLWYN_CONTENT_WINDOW is 1. It stands in for the application's main window so that
// the desktop tests and the screenshot script can drive the dashboard; it is not offered to users.
bool contentWindowRequested();
std::unique_ptr<QWidget> openContentWindow(ServerManager& serverManager, Preferences& preferences);

} // namespace tellwyn
