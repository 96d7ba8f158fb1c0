#pragma once

// Chooses Qt's display platform before the application object exists. In a Wayland session that
// also offers XWayland (DISPLAY is set), Ondril runs on the xcb platform so that the panel can be
// placed at the tray's click point and closes on click-away as on X11; it says so once. A choice
// made through QT_QPA_PLATFORM stands.
namespace DisplayPlatform {

void choose();

} // namespace DisplayPlatform
