// The headless dialog host: every control's state in memory, and the user's actions by id.
//
// The user's actions send what the platform's controls send: moving the focus from an edit or a
// combo box reports EditFocusLost to it, into one EditFocusGained; each typed character is one
// EditChanged; a click first moves the focus to the button. An action on a control that is
// disabled, or of a dialog that has ended, does nothing and returns false. Any operation on an id
// the template does not have, by the user or by the procedure, throws std::invalid_argument.
#pragma once

#include <deque>
#include <memory>

#include "platform/dialog.h"
#include "platform/ports.h"

namespace corvane {

class HeadlessDialog final : public Dialog {
public:
    HeadlessDialog(const DialogTemplate& dialog, DialogProc procedure);

    // Sends Initialise; the focus goes to the first enabled control with a tab stop, unless the
    // procedure set it.
    void open();
    std::intptr_t result() const { return result_; }

    // The user's actions.
    bool focusOn(int id); // Tab or a click into the control
    bool type(int id, std::string_view keys);
    bool clearText(int id); // select all, delete: one EditChanged when there was text
    bool click(int id);
    bool chooseRow(int id, int row);
    void closeBySystemMenu(); // Close: the system menu, the close box or Alt+F4
    void pressCopy();         // the copy key with no text selected (copyCommand)
    // The interval set with setTimer has passed: sends Timer; false when no timer runs.
    bool tick();
    int timerInterval() const { return timer_; }

    // Dialog.
    const DialogTemplate& dialogTemplate() const override { return *template_; }
    void setText(int id, std::string_view text) override;
    std::string text(int id) const override;
    void setToolTip(int id, std::string_view text) override;
    std::string toolTip(int id) const;
    void enable(int id, bool enabled) override;
    bool isEnabled(int id) const override;
    void setFocus(int id) override;
    int focus() const override { return focus_; }
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
    void setTimer(int milliseconds) override { timer_ = milliseconds > 0 ? milliseconds : 0; }

private:
    struct Control {
        const ControlTemplate* tmpl;
        std::string text;
        bool enabled;
        std::string toolTip;
        bool checked = false;
        std::vector<std::string> rows;
        int selection = -1;
    };
    Control* lookup(int id); // nullptr when the template has no such control
    // Throws std::invalid_argument when the template has no such control: a test or a procedure
    // that names a control the dialog has not is wrong, whatever a real host would do.
    Control* find(int id);
    const Control* find(int id) const;
    Control* usable(int id); // enabled, in an open dialog
    static bool hasRows(const Control& c);
    static bool hasField(const Control& c); // edits and combo boxes with a field
    void send(int id, Notification notification);

    const DialogTemplate* template_;
    DialogProc procedure_;
    std::vector<Control> controls_;
    int focus_ = 0;
    bool opened_ = false;
    int timer_ = 0;
    bool ended_ = false;
    std::intptr_t result_ = 0;
};

// A dialog port for tests: each modal dialog gets the next user script queued for it, which
// acts on the open dialog; modeless dialogs are kept for the test to drive.
class HeadlessDialogPort final : public DialogPort {
public:
    using User = std::function<void(HeadlessDialog& dialog)>;

    // Installs itself for its lifetime.
    HeadlessDialogPort() { setDialogPort(this); }
    ~HeadlessDialogPort() override { setDialogPort(nullptr); }
    HeadlessDialogPort(const HeadlessDialogPort&) = delete;
    HeadlessDialogPort& operator=(const HeadlessDialogPort&) = delete;

    // The next modal dialog named name runs user. A modal dialog without a script (or with
    // one for another name) is closed by its system menu; if it stays open, it ends with -1.
    void expect(std::string name, User user) {
        users_.push_back({std::move(name), std::move(user)});
    }
    std::size_t pendingUsers() const { return users_.size(); }
    // Names of the dialogs opened, in order, modal and modeless.
    const std::vector<std::string>& opened() const { return opened_; }
    // The newest modeless dialog named name that has not ended; nullptr when there is none.
    HeadlessDialog* modeless(std::string_view name);

    std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure) override;
    Dialog* createDialog(const DialogTemplate& dialog, DialogProc procedure) override;

    // Runs a modal dialog with user acting on it; what dialogBox does, without a port.
    static std::intptr_t run(const DialogTemplate& dialog, DialogProc procedure, const User& user);

private:
    std::deque<std::pair<std::string, User>> users_;
    std::vector<std::string> opened_;
    std::vector<std::unique_ptr<HeadlessDialog>> modeless_;
};

} // namespace corvane
