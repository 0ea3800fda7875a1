#include "platform/program_wait.h"

namespace corvane {

namespace {

class HeadlessWaitPort final : public WaitPort {
public:
    void waitForEnd(ChildProgram& program) override {
        while (program.poll(1000, [](const std::string&) {})) {
        }
    }
};

HeadlessWaitPort headlessPort;
WaitPort* currentPort = &headlessPort;

} // namespace

void setWaitPort(WaitPort* port) { currentPort = port != nullptr ? port : &headlessPort; }

void waitForEnd(ChildProgram& program) { currentPort->waitForEnd(program); }

} // namespace corvane
