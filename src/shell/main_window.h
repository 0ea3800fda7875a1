// The main window of the desktop program: its procedure, its menu and the state of the shell.
//
// The window itself belongs to the desktop (the Qt host in the program, a recording host in the
// tests); it turns what happens to it into WindowEvents for MainWndProc and offers the services
// the procedure asks for as the WindowHost installed in the ports. Everything the procedure decides
// (commands, check marks, greyed items, loads, repaints) is here, without Qt.
#pragma once

#include <string>

#include "dialogs/info.h"
#include "platform/menu.h"
#include "platform/printing.h"
#include "platform/surface.h"
#include "platform/window_host.h"

namespace corvane {

inline constexpr const char* mainWindowTitle = "Corvane: Magnetic Susceptibility Fitting";
inline constexpr int coverWidth = 439; // the cover page, over the centre of the empty window
inline constexpr int coverHeight = 340;

enum class WindowMessage {
    Create,
    Destroy,        // the window is gone: the program ends
    Size,           // nothing to do: the plot is laid out on the measured screen, not the window
    Paint,          // event.surface is the window's surface for this paint
    Command,        // event.command is the menu item's id, or idmRecalculate (no item)
    LeftButtonDown, // event.x, event.y: client pixels
    MouseMove,
    LeftButtonUp,
    RightButtonDown,
    Close, // the close box: not handled, so the host destroys the window
};

struct WindowEvent {
    WindowMessage message;
    int command = 0;
    int x = 0, y = 0;
    Surface* surface = nullptr;
};

// The mouse mode: what the left button does in the plot. Details: a click picks a fitted curve
// and shows its parameters; Select: a drag selects the displayed range; Zoom: a drag zooms the
// frame. At most one is on, its menu item checked.
enum class MouseMode { None, Details, Select, Zoom };

// The state of the shell: the menu of the main window, its mouse mode and the parameter dialogs
// it has opened. The window itself is the one installed in the ports (platform/ports.h).
struct Shell {
    Menu menu; // "MenuMenu", as the window shows it
    MouseMode mouseMode = MouseMode::None;
    bool dragging = false;              // the left button went down in select or zoom mode
    int dragStartX = 0, dragStartY = 0; // where the drag began, client pixels
    int dragLastX = 0, dragLastY = 0;   // its last accepted position
    PrintSetup printSetup;              // the print dialog's record; its printer lasts a Print
    InfoDialogs infoDialogs;            // the fitting parameter dialogs open
};

// The calculation (0-based) whose shown fitted curve passes within 4 pixels vertically of
// (x, y) in the plot as last painted, in the view shown; -1 for none. The first in calculation
// order wins.
int pickCurve(int x, int y);

// The shell of this process.
extern Shell shell;

// Start-up, once the window installed in the ports has been made: the menu in its initial
// state, the screen measured on screen (which fixes the plot's reference size), the plot
// settings, the label font and the document at their defaults, no paths. The host then shows the
// window at (0, 0) with the size plotLayout.deviceWidth x plotLayout.deviceHeight, and the cover
// page at coverPosition().
void startUp(Surface& screen);

// The window's title: the program's, then the name of the report of the document shown.
std::string windowTitle();

// Where the cover page stands in the window's client area.
struct CoverPosition {
    int x, y;
};
CoverPosition coverPosition();

// The main window's procedure. True when it handled the event; false leaves it to the host's
// default (the close box then destroys the window).
bool MainWndProc(const WindowEvent& event);

// Loads a file named on the command line or dropped on the window: a report (".qpo") is
// plotted as File > Plot does, anything else fitted as File > Open does.
void openFile(const std::string& path);

} // namespace corvane
