#pragma once

#include <QColor>
#include <QIcon>

namespace tellwyn {

struct ServerState;

// Makes the agent's artwork (":/tellwyn/…") available; safe to call more than once.
void loadDesktopArtwork();

// The eye in the panel is blue while the server runs and a viewer is signed in.
bool statusIconTinted(const ServerState& state);

// The eye drawn in one colour: the system blue when tinted, else the panel's foreground (light on
// a dark panel, dark on a light one).
QColor statusIconColour(bool tinted, bool darkPanel);
QIcon statusIcon(const QColor& colour);

// Whether the desktop's panels are dark, judged by the application palette's window colour.
bool desktopPanelIsDark();

} // namespace tellwyn
