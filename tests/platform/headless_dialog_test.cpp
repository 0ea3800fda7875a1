// The headless dialog host: what the user's actions send, what the procedure's own changes do
// not, and the refusal of a control the template lacks.
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/headless_dialog.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

enum : int { field = 10, other = 11, button = 12, disabled = 13 };

DialogTemplate sample() {
    DialogTemplate d;
    d.name = "SAMPLE";
    d.controls = {{-1, ControlKind::Static, "Label:", 0, 0, 10, 10},
                  {field, ControlKind::Edit, "", 0, 0, 10, 10, csTabStop, 4},
                  {other, ControlKind::Edit, "", 0, 0, 10, 10, csTabStop},
                  {button, ControlKind::Button, "OK", 0, 0, 10, 10, csTabStop},
                  {disabled, ControlKind::Button, "Help", 0, 0, 10, 10, csDisabled}};
    return d;
}

struct Recorder {
    std::vector<std::pair<int, Notification>> seen;
    DialogProc procedure(std::intptr_t result = 1) {
        return [this, result](Dialog& d, DialogMessage m, int id, Notification n) {
            if (m == DialogMessage::Initialise) d.setText(other, "set"); // sends nothing
            if (m == DialogMessage::Command) seen.emplace_back(id, n);
            if (m == DialogMessage::Command && id == button) d.end(result);
            return std::intptr_t{m != DialogMessage::Close};
        };
    }
};

TEST(HeadlessDialogTest, TheUsersActionsSendWhatControlsSendAndUnknownIdsAreRefused) {
    const DialogTemplate t = sample();
    Recorder r;
    HeadlessDialog d(t, r.procedure(5));
    d.open();
    EXPECT_EQ(d.focus(), field); // the first enabled control with a tab stop
    EXPECT_EQ(d.text(other), "set");
    EXPECT_TRUE(r.seen.empty());

    EXPECT_TRUE(d.type(field, "12345")); // the fifth key is refused by the length
    EXPECT_EQ(d.text(field), "1234");
    EXPECT_EQ(r.seen.size(), 4u);
    EXPECT_FALSE(d.click(disabled));
    r.seen.clear();
    EXPECT_TRUE(d.focusOn(other));
    EXPECT_EQ(r.seen,
              (std::vector<std::pair<int, Notification>>{{field, Notification::EditFocusLost},
                                                         {other, Notification::EditFocusGained}}));

    EXPECT_THROW(d.click(999), std::invalid_argument);
    EXPECT_THROW(d.setText(999, "x"), std::invalid_argument);
    EXPECT_THROW(static_cast<void>(d.isEnabled(0)), std::invalid_argument);

    d.click(button);
    EXPECT_TRUE(d.hasEnded());
    EXPECT_EQ(d.result(), 5);
    EXPECT_FALSE(d.type(field, "9")); // an ended dialog takes nothing
}

TEST(HeadlessDialogTest, AModalDialogRunsItsScriptOrIsClosedAndATimerTicks) {
    testing::RecordingPort messages;
    const DialogTemplate t = sample();
    HeadlessDialogPort port;
    Recorder r;
    port.expect("SAMPLE", [](HeadlessDialog& d) { d.click(button); });
    EXPECT_EQ(dialogBox(t, r.procedure(3)), 3);
    // No script: closed by its system menu; a procedure that keeps it open gives -1.
    EXPECT_EQ(dialogBox(t, r.procedure()), -1);
    EXPECT_EQ(port.opened(), (std::vector<std::string>{"SAMPLE", "SAMPLE"}));

    int ticks = 0;
    HeadlessDialog timed(t, [&](Dialog& d, DialogMessage m, int, Notification) {
        if (m == DialogMessage::Initialise) d.setTimer(50);
        if (m == DialogMessage::Timer && ++ticks == 2) d.setTimer(0);
        return std::intptr_t{1};
    });
    timed.open();
    EXPECT_EQ(timed.timerInterval(), 50);
    while (timed.tick()) {
    }
    EXPECT_EQ(ticks, 2);
}

} // namespace
} // namespace corvane
