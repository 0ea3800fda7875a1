#include "platform/program_wait.h"

#include "platform/ports.h"

namespace corvane {

void waitForEnd(ChildProgram& program) { ports().waiting->waitForEnd(program); }

} // namespace corvane
