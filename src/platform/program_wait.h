// Waiting for a program the user works in (newQPI, started by File > New) until it ends.
//
// While it runs the desktop's windows repaint but take no input: that is what the wait port in
// use does. Until a front end installs its own, the headless port just waits. The port is
// process-wide and not thread-safe, as the message port is.
#pragma once

#include "platform/process.h"

namespace corvane {

class WaitPort {
public:
    virtual ~WaitPort() = default;
    // Returns once program (started) has ended and all its output has been read and dropped.
    virtual void waitForEnd(ChildProgram& program) = 0;
};

// Waits through the port in use; see WaitPort::waitForEnd.
void waitForEnd(ChildProgram& program);

} // namespace corvane
