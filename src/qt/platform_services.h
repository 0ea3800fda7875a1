// The Qt backends of the small platform services: message boxes and beeps, the open-file
// chooser, and a widget's cursor, mouse capture and repaint.
#pragma once

#include "platform/choosers.h"
#include "platform/messages.h"
#include "platform/window_host.h"

class QMainWindow;
class QWidget;

namespace corvane {

// QMessageBox with the style's buttons and icon, owned by the active modal dialog (else the
// active window); QApplication::beep for every beep.
// Status notes in the status line of window, shown for statusSeconds and then hidden again (it
// is made when the first note comes, so that a window without notes keeps its whole area), or
// on the standard error stream without a window.
class QtMessagePort final : public MessagePort {
public:
    explicit QtMessagePort(QMainWindow* window = nullptr) : window_(window) {}
    int messageBox(const std::string& text, const std::string& caption, unsigned style) override;
    void beep(unsigned type) override;
    void status(const std::string& text) override;

    static constexpr int statusSeconds = 20;

private:
    QMainWindow* window_;
};

// QFileDialog, owned by owner (nullptr for none), opening existing or new names: the filters,
// the filter index and the initial file name of the request; the default extension appended.
class QtChooserPort final : public ChooserPort {
public:
    explicit QtChooserPort(QWidget* owner = nullptr) : owner_(owner) {}
    std::optional<std::string> chooseOpenFile(const OpenFileRequest& request) override;
    std::optional<SavedFile> chooseSaveFile(const SaveFileRequest& request) override;
    // Qt's font dialog with a colour box below it, in one window.
    std::optional<FontChoice> chooseFont(Colour initialColour) override;

private:
    QWidget* owner_;
};

class WidgetWindow final : public WindowServices {
public:
    explicit WidgetWindow(QWidget& widget) : widget_(widget) {}
    void setCursor(CursorShape shape) override;
    void captureMouse() override;
    void releaseMouse() override;
    void invalidate(bool erase) override;
    void update() override;

private:
    QWidget& widget_;
};

} // namespace corvane
