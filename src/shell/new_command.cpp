// File > New: newQPI creates an input file, and the window fits it as File > Open does.
#include <cstdlib>
#include <string>

#include "fit/run_state.h"
#include "platform/messages.h"
#include "platform/ports.h"
#include "platform/program_wait.h"
#include "qpname/qpname.h"
#include "shell/commands.h"
#include "shell/main_window.h"

namespace corvane {

namespace {

// newQPI: the program CORVANE_NEWQPI names when it is set, else the one beside this program,
// else the one on the search path; "" when there is none.
std::string companionProgram() {
    if (const char* named = std::getenv("CORVANE_NEWQPI"); named != nullptr && named[0] != '\0')
        return named;
    return findProgram("newQPI");
}

} // namespace

void newCommand() {
    window().closeCover();
    // The name newQPI stores under this token is for this window alone: a newQPI that another
    // window started, or one started by hand, hands nothing to it.
    const std::string token = newQpnameToken();
    ChildProgram companion;
    std::string error;
    const std::string program = companionProgram();
    if (program.empty() || !companion.start(program, {"--qpname-token", token}, error)) {
        messageBox("Unable to create input file for fitting!", "Error...", mbOk | mbIconHand);
        return;
    }
    waitForEnd(companion); // the window repaints meanwhile, but takes no input
    runState.inputPath = get_qpname(token);
    clear_qpname(token);
    if (runState.inputPath.empty()) return; // the user created nothing
    openInputFile(runState.inputPath);
}

} // namespace corvane
