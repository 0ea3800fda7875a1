// The generic Qt dialog host: a dialog template as a QDialog with real widgets.
//
// Each control becomes a widget placed at its rectangle in dialog units, converted to pixels
// from the dialog font's average character width and height as the original platform does
// (x * averageWidth / 4, y * height / 8, rounded). The widgets' signals reach the procedure as
// notifications (the user's changes only: the host blocks signals while it carries out the
// procedure's own operations); the close box and Alt+F4 send Close, Escape a Command of
// control 2 (the platform's cancel id), Enter presses the default button.
#pragma once

#include <QFont>
#include <QRect>
#include <QTimer>
#include <memory>
#include <vector>

#include "platform/dialog.h"

class QAbstractButton;
class QComboBox;
class QDialog;
class QLabel;
class QLineEdit;
class QListWidget;
class QWidget;

namespace corvane {

// The dialog font's average character width (of "A".."Z", "a".."z", as the platform counts
// it) and height, in pixels.
struct DialogBaseUnits {
    int averageWidth = 0;
    int height = 0;
};

// The template's font: face and points; "MS Sans Serif" and "Arial" are given their
// metric-compatible substitute.
QFont dialogFont(const DialogTemplate& dialog);
DialogBaseUnits dialogBaseUnits(const QFont& font);
// A rectangle in dialog units, in pixels.
QRect dialogRect(const DialogBaseUnits& units, int x, int y, int width, int height);

class QtDialog final : public Dialog {
public:
    // The window is built at once, hidden; owner may be nullptr.
    QtDialog(const DialogTemplate& dialog, DialogProc procedure, QWidget* owner);
    ~QtDialog() override;
    QtDialog(const QtDialog&) = delete;
    QtDialog& operator=(const QtDialog&) = delete;

    // Sends Initialise; false when the procedure ended the dialog there.
    bool initialise();
    // Initialises, then runs the dialog modally until its procedure ends it (never shown when
    // it ended in Initialise); returns the result, -1 when the window was closed otherwise.
    std::intptr_t runModal();
    // Initialises, then shows the dialog; false when it ended in Initialise.
    bool showModeless();

    QDialog& window();
    // The widget of control id (the container of a simple combo box); nullptr when none.
    QWidget* widget(int id) const;
    const DialogBaseUnits& baseUnits() const { return units_; }
    std::intptr_t result() const { return result_; }

    // Dialog.
    const DialogTemplate& dialogTemplate() const override { return *template_; }
    void setText(int id, std::string_view text) override;
    std::string text(int id) const override;
    void setToolTip(int id, std::string_view text) override;
    void enable(int id, bool enabled) override;
    bool isEnabled(int id) const override;
    void setFocus(int id) override;
    int focus() const override;
    void setChecked(int id, bool checked) override;
    bool isChecked(int id) const override;
    void clearRows(int id) override;
    int addRow(int id, std::string_view text) override;
    int rowCount(int id) const override;
    std::string rowText(int id, int row) const override;
    int selection(int id) const override;
    void select(int id, int row) override;
    void end(std::intptr_t result) override;
    bool hasEnded() const override { return ended_; }
    void setTimer(int milliseconds) override;

private:
    class Window;
    struct Control {
        const ControlTemplate* tmpl = nullptr;
        QWidget* widget = nullptr;
        QLineEdit* field = nullptr;        // edits and the field of a combo box
        QListWidget* list = nullptr;       // list boxes and the list of a simple combo box
        QComboBox* combo = nullptr;        // drop-down combo boxes
        QAbstractButton* button = nullptr; // buttons and check boxes
        // A status line (a read-only, frameless, centred edit) whose text is too wide for it:
        // the text wrapped in a label over it, made when first needed.
        mutable QLabel* wrapped = nullptr;
    };
    void wrapWhenLong(const Control& control, const QString& text) const;
    void build();
    void placeWindow();
    Control makeControl(const ControlTemplate& t);
    void makeComboBox(Control& control, QRect& rect);
    void connect(Control& control);
    const Control* find(int id) const;
    void send(DialogMessage message, int id, Notification notification);
    void focusEvent(QLineEdit* field, bool gained);

    const DialogTemplate* template_;
    DialogProc procedure_;
    std::unique_ptr<Window> window_;
    std::unique_ptr<QTimer> timer_;
    DialogBaseUnits units_;
    std::vector<Control> controls_;
    bool ownFocusChange_ = false;
    bool ended_ = false;
    bool modal_ = false;
    std::intptr_t result_ = -1;
};

// Opens dialogs as Qt windows owned by owner (the main window; nullptr for none).
class QtDialogPort final : public DialogPort {
public:
    explicit QtDialogPort(QWidget* owner = nullptr) : owner_(owner) {}
    ~QtDialogPort() override;
    std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure) override;
    Dialog* createDialog(const DialogTemplate& dialog, DialogProc procedure) override;

private:
    void dropEnded();
    QWidget* owner_;
    std::vector<std::unique_ptr<QtDialog>> modeless_;
};

} // namespace corvane
