// Message boxes and beeps.
//
// The core shows every message through the message port in use. Until a front end installs its
// own (the desktop program installs real message boxes), the headless port prints
// "caption: text" to the standard error stream and does not beep. The port is process-wide and
// not thread-safe: install it at start-up, from the thread that shows messages.
#pragma once

#include <string>

namespace corvane {

// Message box styles: one button set plus one icon, as the desktop conventions combine them.
enum MessageStyle : unsigned {
    mbOk = 0x00,
    mbOkCancel = 0x01,
    mbYesNo = 0x04,
    mbIconHand = 0x10, // stop sign: errors
    mbIconQuestion = 0x20,
    mbIconExclamation = 0x30, // warnings
    mbIconAsterisk = 0x40,    // information
};

// The button that closed a message box.
enum MessageResult : int { idOk = 1, idCancel = 2, idYes = 6, idNo = 7 };

class MessagePort {
public:
    virtual ~MessagePort() = default;
    // Shows text with caption and waits for a button; returns the MessageResult of the button.
    virtual int messageBox(const std::string& text, const std::string& caption, unsigned style) = 0;
    // The system sound of the given type (0 is the default sound).
    virtual void beep(unsigned type) = 0;
    // A note that needs no answer, in the window's status line; the headless port prints it to
    // the standard error stream.
    virtual void status(const std::string& text);
};

// Shows a message through the port in use. The headless port answers with the first button
// of the style (idOk, or idYes for mbYesNo).
int messageBox(const std::string& text, const std::string& caption, unsigned style = mbOk);
void messageBeep(unsigned type = 0);

// A note in the status line through the port in use.
void showStatus(const std::string& text);

// The default beep, then text in a message box with the caption "Error".
void showError(const std::string& text, unsigned style = mbOk | mbIconHand);

} // namespace corvane
