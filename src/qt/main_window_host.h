// The main window on Qt: a thin host around the shell's window procedure.
//
// The host turns what happens to the window into WindowEvents for MainWndProc (paints, mouse
// presses, moves and releases, menu commands, the close box) and offers the services the
// procedure asks for (repaint, cursor, mouse capture, the cover page, the engine's log, the end
// of the program). The menu bar is built from shell.menu and follows its enabled state and check
// marks through the menu's listener. Files dropped on the window are loaded as openFile does.
#pragma once

#include <QMainWindow>
#include <QPointer>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "shell/main_window.h"

class QAction;
class QScreen;

namespace corvane {

class CoverPage;
class LogWindow;
class PlotView;
class WidgetWindow;

// What start-up measures: the screen's size in pixels and millimetres, and its resolution.
struct ScreenMeasure {
    DeviceMetrics metrics;
    double dotsPerInch = 96;
};
// The screen in logical pixels; its millimetres from the logical resolution.
ScreenMeasure measureScreen(const QScreen& screen);

class MainWindowHost final : public QMainWindow, public WindowHost {
public:
    MainWindowHost();
    ~MainWindowHost() override;
    MainWindowHost(const MainWindowHost&) = delete;
    MainWindowHost& operator=(const MainWindowHost&) = delete;

    // Starts the shell on a screen of this measure (the window must be the one installed in the
    // ports, see platform/ports.h), then builds the menu bar, sizes the window
    // to plotLayout.deviceWidth x plotLayout.deviceHeight at (0, 0) and puts the cover page at
    // coverPosition(). Every paint of the plot uses the same measure.
    void start(const ScreenMeasure& screen);

    QWidget& plotWidget();
    // The cover page; nullptr once it is gone.
    QWidget* coverPage() const;
    // The menu bar's action of command id; nullptr when the menu has none.
    QAction* action(int id) const;
    // The log window; nullptr before the first showLogFile.
    QWidget* logWindow() const;

    // Called after every paint of the plot widget.
    std::function<void()> afterPaint;

    // WindowHost.
    void setCursor(CursorShape shape) override;
    void captureMouse() override;
    void releaseMouse() override;
    void invalidate(bool erase) override;
    void update() override;
    void closeCover() override;
    void quit(int exitCode) override;
    void showLogFile(const std::string& path) override;
    int clientWidth() const override;
    int clientHeight() const override;
    void showBand(int x0, int y0, int x1, int y1) override;
    void hideBand() override;
    bool savePlot(const std::string& path, std::string& error) override;
    void setTitle(const std::string& title) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    void copyText(const std::string& text) override;

protected:
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    friend class PlotView;
    void buildMenuBar();
    void addItems(QWidget& menu, const std::vector<MenuItem>& items);
    QAction* addItem(QWidget& menu, const MenuItem& item);
    void mirror(const MenuItem& item);

    ScreenMeasure screen_;
    PlotView* plot_;
    std::unique_ptr<WidgetWindow> plotServices_;
    QPointer<CoverPage> cover_;
    QPointer<LogWindow> log_;
    QWidget* band_ = nullptr; // the band over the plot, so the plot is not painted again under it
    std::unordered_map<const MenuItem*, QAction*> actions_;
    std::unordered_map<int, QAction*> commands_;
};

} // namespace corvane
