// Menus as data.
//
// A menu is a bar of items, as a resource script gives it: commands (an id and a text whose "&"
// marks the access letter), separators and popups holding further items. A command may stand on
// the bar itself. Each item carries its enabled state and its check mark; the window procedure
// changes them by command id, or by position on the bar (popups have no id), and a front end
// that shows the menu mirrors them through the listener.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace corvane {

struct MenuItem {
    enum class Kind { Command, Separator, Popup };
    Kind kind = Kind::Command;
    int id = 0;          // commands only
    std::string text;    // "&" marks the access letter; empty for separators
    bool enabled = true; // false: greyed and disabled
    bool checked = false;
    std::vector<MenuItem> items; // popups only

    static MenuItem command(int id, std::string text, bool enabled = true);
    static MenuItem separator();
    static MenuItem popup(std::string text, std::vector<MenuItem> items, bool enabled = true);
};

// The position of an item on the bar, numbered from 0.
struct AtPosition {
    int position;
};

class Menu {
public:
    // Called after every change of an item's state, with the item as it is now.
    using Listener = std::function<void(const MenuItem& item)>;

    Menu() = default;
    explicit Menu(std::vector<MenuItem> bar) : bar_(std::move(bar)) {}

    const std::vector<MenuItem>& bar() const { return bar_; }
    // The command with this id anywhere in the menu (the first one in menu order), or the item
    // at this position on the bar; nullptr when there is none.
    const MenuItem* find(int id) const;
    const MenuItem* find(AtPosition at) const;

    // Each returns false, changing nothing, when there is no such item.
    bool check(int id) { return setChecked(item(id), true); }
    bool check(AtPosition at) { return setChecked(item(at), true); }
    bool uncheck(int id) { return setChecked(item(id), false); }
    bool uncheck(AtPosition at) { return setChecked(item(at), false); }
    bool enable(int id) { return setEnabled(item(id), true); }
    bool enable(AtPosition at) { return setEnabled(item(at), true); }
    // Greyed and disabled: shown grey, cannot be chosen.
    bool grey(int id) { return setEnabled(item(id), false); }
    bool grey(AtPosition at) { return setEnabled(item(at), false); }

    // False also when there is no such item.
    bool isChecked(int id) const;
    bool isChecked(AtPosition at) const;
    bool isEnabled(int id) const;
    bool isEnabled(AtPosition at) const;

    // One listener at a time; an empty function removes it.
    void setListener(Listener listener) { listener_ = std::move(listener); }
    // Grows by one with every change of state, so a front end can tell that it is behind.
    std::uint64_t version() const { return version_; }

private:
    MenuItem* item(int id) { return const_cast<MenuItem*>(find(id)); }
    MenuItem* item(AtPosition at) { return const_cast<MenuItem*>(find(at)); }
    bool setChecked(MenuItem* item, bool checked);
    bool setEnabled(MenuItem* item, bool enabled);
    void changed(const MenuItem& item);

    std::vector<MenuItem> bar_;
    Listener listener_;
    std::uint64_t version_ = 0;
};

} // namespace corvane
