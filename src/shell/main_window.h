// The main window of the desktop program: its procedure, its menu and the state of the shell.
//
// The window itself belongs to the desktop (the Qt host in the program, a recording host in the
// tests); it turns what happens to it into WindowEvents for MainWndProc and offers the services
// the procedure asks for through ShellHost. Everything the procedure decides (commands, check
// marks, greyed items, loads, repaints) is here, without Qt.
#pragma once

#include <string>

#include "platform/choosers.h"
#include "platform/menu.h"
#include "platform/printing.h"
#include "platform/surface.h"

namespace corvane {

inline constexpr const char* mainWindowTitle = "Corvane: Magnetic Susceptibility Fitting";
inline constexpr int coverWidth = 439; // the cover page, over the centre of the empty window
inline constexpr int coverHeight = 340;

enum class WindowMessage {
    Create,
    Destroy,        // the window is gone: the program ends
    Size,           // nothing to do: the plot is laid out on the measured screen, not the window
    Paint,          // event.surface is the window's surface for this paint
    Command,        // event.command is the menu item's id, or 123 from the parameter dialog
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

// What the main window's procedure asks of the window and the desktop around it.
class ShellHost : public WindowServices {
public:
    // The cover page goes, for good; nothing when it is gone already.
    virtual void closeCover() = 0;
    // Ends the event loop; the program exits with exitCode.
    virtual void quit(int exitCode) = 0;
    // Shows the engine's log file, read-only and following what the engine adds.
    virtual void showLogFile(const std::string& path) = 0;
    // The client area's width and height in pixels.
    virtual int clientWidth() const = 0;
    virtual int clientHeight() const = 0;
    // The rubber band of a selection by mouse: the rectangle with corners (x0, y0) and (x1, y1)
    // drawn over the plot as it is, without painting the plot again; hideBand removes it.
    virtual void showBand(int x0, int y0, int x1, int y1) = 0;
    virtual void hideBand() = 0;
    // The plot as the window shows it, at the window's size, written to path as PNG, PDF or
    // SVG by its extension; false with the reason in error.
    virtual bool savePlot(const std::string& path, std::string& error) = 0;
};

// The state of the shell: the menu of the main window and its mouse modes.
struct Shell {
    Menu menu;                          // "MenuMenu", as the window shows it
    ShellHost* host = nullptr;          // the window; null before start-up
    int detailsPick = 0;                // a click picks a fitted curve and shows its parameters
    int selectByMouse = 0;              // a drag selects the displayed range
    int zoomByMouse = 0;                // a drag zooms the frame
    int dragging = 0;                   // the left button went down in select or zoom mode
    int dragStartX = 0, dragStartY = 0; // where the drag began, client pixels
    int dragLastX = 0, dragLastY = 0;   // its last accepted position
    PrintSetup printSetup;              // the print dialog's record; its printer lasts a Print
};

// The calculation (0-based) whose shown fitted curve passes within 4 pixels vertically of
// (x, y) in the plot as last painted; -1 for none. The first in calculation order wins.
int pickCurve(int x, int y);

// The shell of this process.
extern Shell shell;

// Start-up, once the host has made its window: the menu in its initial state, the screen
// measured on screen (which fixes the plot's reference size), the plot settings, the label font
// and the document at their defaults, no paths. The host then shows the window at (0, 0) with
// the size plotLayout.deviceWidth x plotLayout.deviceHeight, and the cover page at
// coverPosition().
void startUp(ShellHost& host, Surface& screen);

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
