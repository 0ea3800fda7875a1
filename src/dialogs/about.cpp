#include "dialogs/about.h"

#include "resources/dialog_ids.h"

namespace corvane {

std::intptr_t About(Dialog& dialog, DialogMessage message, int control, Notification) {
    if ((message == DialogMessage::Command && control == AboutControl::ok) ||
        message == DialogMessage::Close) {
        dialog.end(1);
        return 1;
    }
    return message == DialogMessage::Initialise ? 1 : 0;
}

} // namespace corvane
