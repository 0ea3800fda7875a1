// A message port for tests: keeps every message box and beep instead of showing them.
#pragma once

#include <string>
#include <vector>

#include "platform/messages.h"

namespace corvane::testing {

struct ShownMessage {
    std::string text;
    std::string caption;
    unsigned style;
};

class RecordingPort final : public MessagePort {
public:
    RecordingPort() { setMessagePort(this); }
    ~RecordingPort() override { setMessagePort(nullptr); }
    RecordingPort(const RecordingPort&) = delete;
    RecordingPort& operator=(const RecordingPort&) = delete;

    int messageBox(const std::string& text, const std::string& caption, unsigned style) override {
        messages.push_back({text, caption, style});
        return idOk;
    }
    void beep(unsigned type) override { beeps.push_back(type); }

    std::vector<ShownMessage> messages;
    std::vector<unsigned> beeps;
};

} // namespace corvane::testing
