// The About box (DL_ABOUT).
#pragma once

#include <cstdint>

#include "platform/dialog.h"

namespace corvane {

// OK or the close box end it with 1.
std::intptr_t About(Dialog& dialog, DialogMessage message, int control, Notification notification);

} // namespace corvane
