// Dialogs: templates as data, the dialog procedure and the operations it has on its controls.
//
// A template gives a dialog as a resource script does: title, place and size in dialog units,
// font, styles and controls, each with an id, a kind, a text, a rectangle in dialog units and
// style flags. A dialog unit is a quarter of the dialog font's average character width across
// and an eighth of its height down.
//
// A dialog procedure is plain code, one per dialog, that switches on the message: Initialise
// (before the dialog shows), Command (a control's notification) and Close (the close command of
// the system menu or the caption). It returns non-zero for a message it handled. It acts on its
// dialog by control id through Dialog. A procedure's own changes (setText, select, setFocus ...)
// send no notifications; only the user's do.
//
// Hosts: HeadlessDialog (platform/headless_dialog.h) keeps the controls in memory for the tests;
// QtDialog (qt/dialog_host.h) shows real widgets. Dialogs are opened through the dialog port in
// use, as message boxes are shown through the message port.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

enum class ControlKind {
    Static,    // text, left-aligned unless csCentre
    Icon,      // the program's icon
    Edit,      // one line of text
    Button,    // push button
    CheckBox,  // a box that the user checks and unchecks
    GroupBox,  // a frame with a title around other controls
    ListBox,   // rows to choose from
    ComboBox,  // an edit field with a list: simple (list always shown) unless a csDrop... flag
    BlackRect, // a filled black rectangle
};

// Control styles that matter here.
enum ControlStyle : unsigned {
    csTabStop = 0x001,
    csGroup = 0x002,        // starts a group of controls for the arrow keys
    csDisabled = 0x004,     // starts disabled
    csDefault = 0x008,      // buttons: the default push button (Enter presses it)
    csCentre = 0x010,       // static text and edits: centred text
    csReadOnly = 0x020,     // edits
    csBorder = 0x040,       // edits: a sunken border
    csDropDown = 0x080,     // combo boxes: the list drops down, the field takes typed text
    csDropDownList = 0x100, // combo boxes: the list drops down, only its rows can be chosen
};

struct ControlTemplate {
    int id = -1; // -1 for controls that the procedure never reaches
    ControlKind kind = ControlKind::Static;
    std::string text;
    int x = 0, y = 0, width = 0, height = 0; // dialog units
    unsigned style = 0;                      // ControlStyle flags
    int maxLength = 0;                       // edits: characters the user may type; 0 no limit
};

// Dialog styles that matter here.
enum DialogStyle : unsigned {
    dsCaption = 0x01,
    dsSystemMenu = 0x02, // a system menu and a close box in the caption
    dsModalFrame = 0x04,
    dsCentre = 0x08, // centred on its owner (on the screen when it has none), not at x, y
};

struct DialogTemplate {
    std::string name; // as the program names it: "DL_ABOUT"
    std::string title;
    int x = 0, y = 0, width = 0, height = 0; // dialog units; x, y from the owner's top-left
    std::string fontFace;
    int fontPoints = 8;
    unsigned style = dsCaption | dsSystemMenu | dsModalFrame; // DialogStyle flags
    std::vector<ControlTemplate> controls;

    // The control with this id, nullptr when there is none (or id is -1).
    const ControlTemplate* control(int id) const;
};

// Timer: the interval asked for with setTimer has passed (work a dialog follows, such as a run
// of the engine, is fed this way, never by a loop inside the procedure).
enum class DialogMessage { Initialise, Command, Close, Timer };

// The control id of a Command that no control sends: the user pressed the copy key (Ctrl+C)
// with no text selected.
inline constexpr int copyCommand = 0x7fff0001;

// What a control reports with a Command.
enum class Notification {
    None,             // Initialise and Close
    Clicked,          // buttons and check boxes
    EditChanged,      // the user changed the text of an edit or a combo box's field
    EditFocusGained,  // an edit or a combo box got the focus
    EditFocusLost,    // and lost it
    SelectionChanged, // the user chose a row of a list or combo box
};

// The operations a procedure has on its dialog; control ids are the template's. Operations on
// an id the dialog has not, or on a control of another kind, do nothing and return empty values.
class Dialog {
public:
    virtual ~Dialog() = default;

    virtual const DialogTemplate& dialogTemplate() const = 0;

    // Static texts, edits, buttons, group boxes; combo boxes: the text of the field (of the
    // chosen row for drop-down lists).
    virtual void setText(int id, std::string_view text) = 0;
    virtual std::string text(int id) const = 0;

    // The text shown when the pointer rests on the control; "" shows none.
    virtual void setToolTip(int id, std::string_view text) = 0;

    virtual void enable(int id, bool enabled = true) = 0;
    void disable(int id) { enable(id, false); }
    virtual bool isEnabled(int id) const = 0;

    virtual void setFocus(int id) = 0;
    // The id of the control that has the focus; 0 when none of the dialog's has it.
    virtual int focus() const = 0;
    bool hasFocus(int id) const { return focus() == id; }

    // Check boxes; for black rectangles, filled (checked, as they start) or empty.
    virtual void setChecked(int id, bool checked) = 0;
    virtual bool isChecked(int id) const = 0;

    // Rows of list and combo boxes, numbered from 0.
    virtual void clearRows(int id) = 0;
    // Appends a row; returns its number (-1 when id is not a list).
    virtual int addRow(int id, std::string_view text) = 0;
    virtual int rowCount(int id) const = 0;
    virtual std::string rowText(int id, int row) const = 0; // "" for a row that is not there
    // The chosen row, -1 when none. Typing into a combo box's field leaves none chosen.
    virtual int selection(int id) const = 0;
    // Chooses row (a combo box's field takes its text); -1 or a row that is not there: none.
    virtual void select(int id, int row) = 0;

    // Ends the dialog with result once the procedure returns; ending it during Initialise
    // means that it never shows. A modal dialog's run returns result.
    virtual void end(std::intptr_t result) = 0;
    virtual bool hasEnded() const = 0;

    // Sends Timer every milliseconds from now on, until the dialog ends; 0 stops it.
    virtual void setTimer(int milliseconds) = 0;

    // The default beep, through the message port.
    void beep();
};

// One procedure per dialog. control and notification belong to Command.
using DialogProc = std::function<std::intptr_t(Dialog& dialog, DialogMessage message, int control,
                                               Notification notification)>;

// Opens dialogs; the desktop program installs the Qt host, tests a headless one.
class DialogPort {
public:
    virtual ~DialogPort() = default;
    // Runs the dialog until its procedure ends it; returns the result, -1 when it could not.
    virtual std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure) = 0;
    // Opens the dialog and returns at once; it lives until its procedure ends it. Returns the
    // dialog (valid until it ends), nullptr when it could not be opened or ended at once.
    virtual Dialog* createDialog(const DialogTemplate& dialog, DialogProc procedure) = 0;
};

std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure);
Dialog* createDialog(const DialogTemplate& dialog, DialogProc procedure);

} // namespace corvane
