#include "platform/messages.h"

#include "platform/ports.h"

#include <cstdio>

namespace corvane {

void MessagePort::status(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
}

void showStatus(const std::string& text) { ports().messages->status(text); }

int messageBox(const std::string& text, const std::string& caption, unsigned style) {
    return ports().messages->messageBox(text, caption, style);
}

void messageBeep(unsigned type) { ports().messages->beep(type); }

void showError(const std::string& text, unsigned style) {
    messageBeep(0);
    messageBox(text, "Error", style);
}

} // namespace corvane
