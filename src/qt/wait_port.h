// The Qt backend of the wait for a program the user works in: a nested event loop that paints
// the windows but drops their input (mouse, keys, wheel, drops, the close box) until the
// program has ended, with the busy cursor over them.
#pragma once

#include "platform/program_wait.h"

namespace corvane {

class QtWaitPort final : public WaitPort {
public:
    void waitForEnd(ChildProgram& program) override;
};

} // namespace corvane
