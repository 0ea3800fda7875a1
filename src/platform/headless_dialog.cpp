#include "platform/headless_dialog.h"

#include <stdexcept>
#include <string>

#include "platform/messages.h"
#include "platform/ports.h"

namespace corvane {

const ControlTemplate* DialogTemplate::control(int id) const {
    if (id == -1) return nullptr;
    for (const ControlTemplate& c : controls)
        if (c.id == id) return &c;
    return nullptr;
}

void Dialog::beep() { messageBeep(0); }

std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure) {
    return ports().dialogs->dialogBox(dialog, std::move(procedure));
}

Dialog* createDialog(const DialogTemplate& dialog, DialogProc procedure) {
    return ports().dialogs->createDialog(dialog, std::move(procedure));
}

// [HeadlessDialog]

HeadlessDialog::HeadlessDialog(const DialogTemplate& dialog, DialogProc procedure)
    : template_(&dialog), procedure_(std::move(procedure)) {
    controls_.reserve(dialog.controls.size());
    for (const ControlTemplate& c : dialog.controls) {
        bool hasText = c.kind != ControlKind::ListBox && c.kind != ControlKind::ComboBox;
        controls_.push_back({&c,
                             hasText ? c.text : std::string(),
                             (c.style & csDisabled) == 0,
                             std::string(),
                             c.kind == ControlKind::BlackRect,
                             {},
                             -1});
    }
}

void HeadlessDialog::open() {
    if (opened_) return;
    opened_ = true;
    if (procedure_) procedure_(*this, DialogMessage::Initialise, 0, Notification::None);
    if (focus_ != 0 || ended_) return;
    for (const Control& c : controls_) {
        if (c.enabled && (c.tmpl->style & csTabStop) != 0 && c.tmpl->id != -1) {
            focus_ = c.tmpl->id;
            break;
        }
    }
}

HeadlessDialog::Control* HeadlessDialog::lookup(int id) {
    if (id == -1) return nullptr;
    for (Control& c : controls_)
        if (c.tmpl->id == id) return &c;
    return nullptr;
}

HeadlessDialog::Control* HeadlessDialog::find(int id) {
    if (Control* c = lookup(id)) return c;
    throw std::invalid_argument(template_->name + " has no control " + std::to_string(id));
}

const HeadlessDialog::Control* HeadlessDialog::find(int id) const {
    return const_cast<HeadlessDialog*>(this)->find(id);
}

HeadlessDialog::Control* HeadlessDialog::usable(int id) {
    Control* c = find(id);
    return opened_ && !ended_ && c != nullptr && c->enabled ? c : nullptr;
}

bool HeadlessDialog::hasRows(const Control& c) {
    return c.tmpl->kind == ControlKind::ListBox || c.tmpl->kind == ControlKind::ComboBox;
}

bool HeadlessDialog::hasField(const Control& c) {
    return c.tmpl->kind == ControlKind::Edit ||
           (c.tmpl->kind == ControlKind::ComboBox && (c.tmpl->style & csDropDownList) == 0);
}

void HeadlessDialog::send(int id, Notification notification) {
    if (procedure_ && !ended_) procedure_(*this, DialogMessage::Command, id, notification);
}

bool HeadlessDialog::focusOn(int id) {
    Control* target = usable(id);
    if (target == nullptr) return false;
    if (focus_ == id) return true;
    int previous = focus_;
    focus_ = id;
    if (const Control* old = lookup(previous); old != nullptr && hasField(*old))
        send(previous, Notification::EditFocusLost);
    // The procedure may have taken the focus back, or ended the dialog.
    if (focus_ == id && hasField(*target)) send(id, Notification::EditFocusGained);
    return !ended_;
}

bool HeadlessDialog::type(int id, std::string_view keys) {
    Control* c = usable(id);
    if (c == nullptr || !hasField(*c) || !focusOn(id) || focus_ != id) return false;
    if ((c->tmpl->style & csReadOnly) != 0) return true;
    for (char key : keys) {
        if (ended_ || focus_ != id) break;
        if (c->tmpl->maxLength > 0 &&
            c->text.size() >= static_cast<std::size_t>(c->tmpl->maxLength))
            continue; // the field refuses it
        c->text += key;
        c->selection = -1;
        send(id, Notification::EditChanged);
    }
    return !ended_;
}

bool HeadlessDialog::clearText(int id) {
    Control* c = usable(id);
    if (c == nullptr || !hasField(*c) || !focusOn(id) || focus_ != id) return false;
    if ((c->tmpl->style & csReadOnly) != 0 || c->text.empty()) return true;
    c->text.clear();
    c->selection = -1;
    send(id, Notification::EditChanged);
    return !ended_;
}

bool HeadlessDialog::click(int id) {
    Control* c = usable(id);
    if (c == nullptr ||
        (c->tmpl->kind != ControlKind::Button && c->tmpl->kind != ControlKind::CheckBox))
        return false;
    if (!focusOn(id)) return false;
    if (c->tmpl->kind == ControlKind::CheckBox) c->checked = !c->checked;
    send(id, Notification::Clicked);
    return true;
}

bool HeadlessDialog::chooseRow(int id, int row) {
    Control* c = usable(id);
    if (c == nullptr || !hasRows(*c) || row < 0 || row >= static_cast<int>(c->rows.size()))
        return false;
    if (!focusOn(id)) return false;
    select(id, row);
    send(id, Notification::SelectionChanged);
    return true;
}

void HeadlessDialog::closeBySystemMenu() {
    if (!opened_ || ended_) return;
    if (procedure_) procedure_(*this, DialogMessage::Close, 0, Notification::None);
}

void HeadlessDialog::pressCopy() {
    if (opened_ && !ended_) send(copyCommand, Notification::Clicked);
}

bool HeadlessDialog::tick() {
    if (!opened_ || ended_ || timer_ == 0) return false;
    if (procedure_) procedure_(*this, DialogMessage::Timer, 0, Notification::None);
    return true;
}

void HeadlessDialog::setText(int id, std::string_view text) {
    Control* c = find(id);
    if (c == nullptr || c->tmpl->kind == ControlKind::ListBox) return;
    if (c->tmpl->kind == ControlKind::ComboBox) {
        if ((c->tmpl->style & csDropDownList) != 0) return;
        c->selection = -1;
    }
    c->text = text;
}

std::string HeadlessDialog::text(int id) const {
    const Control* c = find(id);
    return c != nullptr ? c->text : std::string();
}

void HeadlessDialog::setToolTip(int id, std::string_view text) {
    if (Control* c = find(id)) c->toolTip = text;
}

std::string HeadlessDialog::toolTip(int id) const {
    const Control* c = find(id);
    return c != nullptr ? c->toolTip : std::string();
}

void HeadlessDialog::enable(int id, bool enabled) {
    Control* c = find(id);
    if (c == nullptr) return;
    c->enabled = enabled;
    if (!enabled && focus_ == id) focus_ = 0;
}

bool HeadlessDialog::isEnabled(int id) const {
    const Control* c = find(id);
    return c != nullptr && c->enabled;
}

void HeadlessDialog::setFocus(int id) {
    const Control* c = find(id);
    if (c != nullptr && c->enabled) focus_ = id;
}

void HeadlessDialog::setChecked(int id, bool checked) {
    Control* c = find(id);
    if (c != nullptr &&
        (c->tmpl->kind == ControlKind::CheckBox || c->tmpl->kind == ControlKind::BlackRect))
        c->checked = checked;
}

bool HeadlessDialog::isChecked(int id) const {
    const Control* c = find(id);
    return c != nullptr && c->checked;
}

void HeadlessDialog::clearRows(int id) {
    Control* c = find(id);
    if (c == nullptr || !hasRows(*c)) return;
    c->rows.clear();
    c->selection = -1;
    if ((c->tmpl->style & csDropDownList) != 0) c->text.clear();
}

int HeadlessDialog::addRow(int id, std::string_view text) {
    Control* c = find(id);
    if (c == nullptr || !hasRows(*c)) return -1;
    c->rows.emplace_back(text);
    return static_cast<int>(c->rows.size()) - 1;
}

int HeadlessDialog::rowCount(int id) const {
    const Control* c = find(id);
    return c != nullptr && hasRows(*c) ? static_cast<int>(c->rows.size()) : 0;
}

std::string HeadlessDialog::rowText(int id, int row) const {
    const Control* c = find(id);
    if (c == nullptr || row < 0 || row >= static_cast<int>(c->rows.size())) return {};
    return c->rows[static_cast<std::size_t>(row)];
}

int HeadlessDialog::selection(int id) const {
    const Control* c = find(id);
    return c != nullptr ? c->selection : -1;
}

void HeadlessDialog::select(int id, int row) {
    Control* c = find(id);
    if (c == nullptr || !hasRows(*c)) return;
    bool there = row >= 0 && row < static_cast<int>(c->rows.size());
    c->selection = there ? row : -1;
    if (c->tmpl->kind == ControlKind::ComboBox && (there || (c->tmpl->style & csDropDownList) != 0))
        c->text = there ? c->rows[static_cast<std::size_t>(row)] : std::string();
}

void HeadlessDialog::end(std::intptr_t result) {
    if (ended_) return;
    ended_ = true;
    result_ = result;
}

// [HeadlessDialogPort]

std::intptr_t HeadlessDialogPort::run(const DialogTemplate& dialog, DialogProc procedure,
                                      const User& user) {
    HeadlessDialog running(dialog, std::move(procedure));
    running.open();
    if (!running.hasEnded() && user) user(running);
    if (!running.hasEnded()) running.closeBySystemMenu();
    return running.hasEnded() ? running.result() : -1;
}

std::intptr_t HeadlessDialogPort::dialogBox(const DialogTemplate& dialog, DialogProc procedure) {
    opened_.push_back(dialog.name);
    User user;
    if (!users_.empty() && users_.front().first == dialog.name) {
        user = std::move(users_.front().second);
        users_.pop_front();
    }
    return run(dialog, std::move(procedure), user);
}

Dialog* HeadlessDialogPort::createDialog(const DialogTemplate& dialog, DialogProc procedure) {
    opened_.push_back(dialog.name);
    auto opening = std::make_unique<HeadlessDialog>(dialog, std::move(procedure));
    opening->open();
    if (opening->hasEnded()) return nullptr;
    modeless_.push_back(std::move(opening));
    return modeless_.back().get();
}

HeadlessDialog* HeadlessDialogPort::modeless(std::string_view name) {
    for (auto it = modeless_.rbegin(); it != modeless_.rend(); ++it)
        if ((*it)->dialogTemplate().name == name && !(*it)->hasEnded()) return it->get();
    return nullptr;
}

} // namespace corvane
