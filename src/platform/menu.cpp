#include "platform/menu.h"

namespace corvane {

namespace {

const MenuItem* findIn(const std::vector<MenuItem>& items, int id) {
    for (const MenuItem& item : items) {
        if (item.kind == MenuItem::Kind::Command && item.id == id) return &item;
        if (item.kind == MenuItem::Kind::Popup) {
            if (const MenuItem* found = findIn(item.items, id)) return found;
        }
    }
    return nullptr;
}

} // namespace

MenuItem MenuItem::command(int id, std::string text, bool enabled) {
    MenuItem item;
    item.id = id;
    item.text = std::move(text);
    item.enabled = enabled;
    return item;
}

MenuItem MenuItem::separator() {
    MenuItem item;
    item.kind = Kind::Separator;
    return item;
}

MenuItem MenuItem::popup(std::string text, std::vector<MenuItem> items, bool enabled) {
    MenuItem item;
    item.kind = Kind::Popup;
    item.text = std::move(text);
    item.items = std::move(items);
    item.enabled = enabled;
    return item;
}

const MenuItem* Menu::find(int id) const { return findIn(bar_, id); }

const MenuItem* Menu::find(AtPosition at) const {
    if (at.position < 0 || static_cast<std::size_t>(at.position) >= bar_.size()) return nullptr;
    return &bar_[static_cast<std::size_t>(at.position)];
}

bool Menu::isChecked(int id) const {
    const MenuItem* item = find(id);
    return item != nullptr && item->checked;
}

bool Menu::isChecked(AtPosition at) const {
    const MenuItem* item = find(at);
    return item != nullptr && item->checked;
}

bool Menu::isEnabled(int id) const {
    const MenuItem* item = find(id);
    return item != nullptr && item->enabled;
}

bool Menu::isEnabled(AtPosition at) const {
    const MenuItem* item = find(at);
    return item != nullptr && item->enabled;
}

bool Menu::setChecked(MenuItem* item, bool checked) {
    if (item == nullptr) return false;
    if (item->checked != checked) {
        item->checked = checked;
        changed(*item);
    }
    return true;
}

bool Menu::setEnabled(MenuItem* item, bool enabled) {
    if (item == nullptr) return false;
    if (item->enabled != enabled) {
        item->enabled = enabled;
        changed(*item);
    }
    return true;
}

void Menu::changed(const MenuItem& item) {
    ++version_;
    if (listener_) listener_(item);
}

} // namespace corvane
