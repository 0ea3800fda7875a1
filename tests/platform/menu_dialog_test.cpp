#include <gtest/gtest.h>

#include "platform/headless_dialog.h"
#include "platform/resources.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

TEST(Menu, ChangesByIdAndPositionReachTheListener) {
    Menu menu = loadMenu("MenuMenu");
    std::vector<std::string> changed;
    menu.setListener([&](const MenuItem& item) { changed.push_back(item.text); });

    EXPECT_TRUE(menu.check(idmGridLines));
    EXPECT_TRUE(menu.check(idmGridLines)); // no change, no report
    EXPECT_TRUE(menu.isChecked(idmGridLines));
    EXPECT_TRUE(menu.enable(AtPosition{2}));
    EXPECT_TRUE(menu.grey(idmFitted1 + 3));
    EXPECT_FALSE(menu.isEnabled(idmFitted1 + 3));
    EXPECT_EQ(changed, (std::vector<std::string>{"Show &Grid Lines", "D&isplay", "# &4"}));
    EXPECT_EQ(menu.version(), 3u);

    EXPECT_FALSE(menu.check(4711));
    EXPECT_FALSE(menu.grey(AtPosition{7}));
    EXPECT_FALSE(menu.isChecked(4711));
    EXPECT_EQ(menu.version(), 3u);
    // Copies are independent: a fresh load is in the initial state again.
    EXPECT_FALSE(loadMenu("MenuMenu").isChecked(idmGridLines));
}

// A small dialog: a number field that must hold digits (5 at most), a simple combo box, a
// check box, OK (default) and Cancel. Its procedure keeps what it was told.
struct Probe {
    DialogTemplate dialog{
        "DL_PROBE", "Probe", 0, 0, 120, 80, "MS Sans Serif", 8, dsCaption | dsSystemMenu, {}};
    std::vector<std::string> log;
    Probe() {
        dialog.controls = {
            {100, ControlKind::Edit, "", 10, 10, 40, 12, csTabStop | csBorder, 5},
            {200, ControlKind::ComboBox, "", 60, 10, 50, 40, csTabStop},
            {300, ControlKind::CheckBox, "Grid", 10, 30, 40, 10, csTabStop},
            {1, ControlKind::Button, "OK", 10, 60, 30, 14, csTabStop | csDefault},
            {2, ControlKind::Button, "Cancel", 50, 60, 30, 14, csTabStop},
        };
    }
    DialogProc procedure() {
        return [this](Dialog& d, DialogMessage message, int id, Notification n) -> std::intptr_t {
            switch (message) {
            case DialogMessage::Initialise:
                for (const char* row : {"8.0", "0.5", "0.1"}) d.addRow(200, row);
                d.select(200, 1);
                d.setText(100, "12");
                return 1;
            case DialogMessage::Close:
                log.push_back("close");
                d.end(0);
                return 1;
            case DialogMessage::Timer:
                log.push_back("timer");
                return 1;
            case DialogMessage::Command:
                log.push_back(std::to_string(id) + ":" + std::to_string(static_cast<int>(n)));
                if (id == 100 && n != Notification::EditFocusGained &&
                    d.text(100).find_first_not_of("0123456789") != std::string::npos) {
                    d.beep();
                    d.setFocus(100);
                }
                if (id == 1) d.end(std::stoi(d.text(100)) * 10 + d.selection(200));
                if (id == 2) d.end(-5);
                return 1;
            }
            return 0;
        };
    }
};

std::string n(int id, Notification notification) {
    return std::to_string(id) + ":" + std::to_string(static_cast<int>(notification));
}

TEST(HeadlessDialog, TypingClickingAndChoosingSendWhatRealControlsSend) {
    testing::RecordingPort messages;
    Probe probe;
    HeadlessDialog dialog(probe.dialog, probe.procedure());
    dialog.open();
    EXPECT_TRUE(probe.log.empty()); // the procedure's own changes send nothing
    EXPECT_EQ(dialog.focus(), 100); // the first tab stop
    EXPECT_EQ(dialog.text(200), "0.5");

    EXPECT_TRUE(dialog.type(100, "3x"));
    EXPECT_EQ(probe.log, (std::vector<std::string>{n(100, Notification::EditChanged),
                                                   n(100, Notification::EditChanged)}));
    EXPECT_EQ(messages.beeps.size(), 1u);
    probe.log.clear();

    // The click moves the focus first: the field reports losing it, and is refused again.
    EXPECT_TRUE(dialog.clearText(100));
    EXPECT_TRUE(dialog.type(100, "1234567"));
    EXPECT_EQ(dialog.text(100), "12345"); // the field's length limit
    EXPECT_TRUE(dialog.chooseRow(200, 2));
    EXPECT_EQ(dialog.text(200), "0.1");
    EXPECT_TRUE(dialog.type(200, "5")); // typed text leaves no row chosen
    EXPECT_EQ(dialog.text(200), "0.15");
    EXPECT_EQ(dialog.selection(200), -1);
    EXPECT_TRUE(dialog.chooseRow(200, 0));
    EXPECT_TRUE(dialog.click(300));
    EXPECT_TRUE(dialog.isChecked(300));
    dialog.disable(2);
    EXPECT_FALSE(dialog.click(2));
    EXPECT_FALSE(dialog.hasEnded());
    EXPECT_TRUE(dialog.click(1));
    EXPECT_TRUE(dialog.hasEnded());
    EXPECT_EQ(dialog.result(), 123450);
    EXPECT_FALSE(dialog.type(100, "1")); // an ended dialog takes nothing
}

} // namespace
} // namespace corvane
