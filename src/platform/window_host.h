// What the program's code asks of a window and of the desktop around it, besides drawing. The
// desktop program's main window implements WindowHost on Qt, the tests record the calls, and
// without either the null host (installed by default, see ports.h) does nothing.
#pragma once

#include <string>

namespace corvane {

enum class CursorShape { Arrow, Cross, Wait };

// The services of any window: cursor, mouse capture, repaint.
class WindowServices {
public:
    virtual ~WindowServices() = default;
    virtual void setCursor(CursorShape shape) = 0;
    // Mouse events reach the window even outside it, until released.
    virtual void captureMouse() = 0;
    virtual void releaseMouse() = 0;
    // The whole client area is to be painted again (erase: cleared first) at the next paint.
    virtual void invalidate(bool erase) = 0;
    // Paints what is invalid now, not at the next turn of the event loop.
    virtual void update() = 0;
};

// The main window.
class WindowHost : public WindowServices {
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
    // The window's title.
    virtual void setTitle(const std::string& title) = 0;
    // Puts text on the clipboard.
    virtual void copyText(const std::string& text) = 0;
};

} // namespace corvane
