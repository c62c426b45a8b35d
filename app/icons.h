// The tool-bar and menu icons, drawn at start-up (no image files to ship or to lose).
#pragma once

#include <QIcon>

namespace lumetra {

// The icon of a command (by id, workbench/commands.h and the view's zoom ids); a null icon for
// commands without one.
QIcon CommandIcon(int id);
// The application's icon: a lens over a frame.
QIcon ApplicationIcon();

}  // namespace lumetra
