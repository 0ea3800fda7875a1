#include "platform/messages.h"

#include <cstdio>

namespace corvane {

namespace {

class HeadlessMessagePort final : public MessagePort {
public:
    int messageBox(const std::string& text, const std::string& caption, unsigned style) override {
        std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
        std::fflush(stderr);
        return (style & 0x0F) == mbYesNo ? idYes : idOk;
    }
    void beep(unsigned) override {}
};

HeadlessMessagePort headlessPort;
MessagePort* currentPort = &headlessPort;

} // namespace

void MessagePort::status(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    std::fflush(stderr);
}

void showStatus(const std::string& text) { currentPort->status(text); }

void setMessagePort(MessagePort* port) { currentPort = port != nullptr ? port : &headlessPort; }

int messageBox(const std::string& text, const std::string& caption, unsigned style) {
    return currentPort->messageBox(text, caption, style);
}

void messageBeep(unsigned type) { currentPort->beep(type); }

void showError(const std::string& text, unsigned style) {
    messageBeep(0);
    messageBox(text, "Error", style);
}

} // namespace corvane
