#include "shell/commands.h"

#include "platform/resources.h"

namespace corvane {

std::intptr_t About(Dialog& dialog, DialogMessage message, int control, Notification) {
    constexpr int okButton = 999;
    if ((message == DialogMessage::Command && control == okButton) ||
        message == DialogMessage::Close) {
        dialog.end(1);
        return 1;
    }
    return message == DialogMessage::Initialise ? 1 : 0;
}

} // namespace corvane
