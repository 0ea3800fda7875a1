// The ports through which the program's code reaches the user and the desktop: message boxes,
// choosers, dialogs, the printer, the wait for a program the user works in, and the main window.
// One record, installed once by the desktop program at start-up; every port not installed is
// the headless one (messages on the standard error stream, choices cancelled, modal dialogs
// closed at once, no printer, waits that just wait, and a window that does nothing). Tests
// install the ports they record with and reset them all at the end. Not thread-safe: install
// them from the thread that shows messages.
#pragma once

#include "platform/choosers.h"
#include "platform/dialog.h"
#include "platform/messages.h"
#include "platform/printing.h"
#include "platform/program_wait.h"
#include "platform/window_host.h"

namespace corvane {

struct Ports {
    MessagePort* messages = nullptr;
    ChooserPort* choosers = nullptr;
    DialogPort* dialogs = nullptr;
    PrinterPort* printers = nullptr;
    WaitPort* waiting = nullptr;
    WindowHost* window = nullptr;
};

// The ports in use: every field set, a headless one where none is installed.
const Ports& ports();

// Installs every port of installed at once, a null one as the headless port. The caller keeps
// them alive while they are installed.
void installPorts(const Ports& installed);

// Every port back to the headless one.
void resetPorts();

// Installs one port, leaving the others (nullptr: the headless one). For tests that record one
// kind of call.
void setMessagePort(MessagePort* port);
void setChooserPort(ChooserPort* port);
void setDialogPort(DialogPort* port);
void setPrinterPort(PrinterPort* port);
void setWaitPort(WaitPort* port);
void setWindowHost(WindowHost* host);

// The main window in use (the null host when none is installed).
inline WindowHost& window() { return *ports().window; }

} // namespace corvane
