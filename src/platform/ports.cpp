#include "platform/ports.h"

#include <cstdio>

#include "platform/headless_dialog.h"

namespace corvane {

namespace {

class HeadlessMessagePort final : public MessagePort {
public:
    int messageBox(const std::string& text, const std::string& caption, unsigned style) override {
        std::fprintf(stderr, "%s: %s\n", caption.c_str(), text.c_str());
        std::fflush(stderr);
        return (style & 0x0F) == mbYesNo ? idYes : idOk;
    }
    void beep(unsigned) override {}
};

class CancellingChoosers final : public ChooserPort {
public:
    std::optional<std::string> chooseOpenFile(const OpenFileRequest&) override { return {}; }
};

// No user and no modeless dialogs: a modal dialog ends as its close command would end it.
class HeadlessDialogs final : public DialogPort {
public:
    std::intptr_t dialogBox(const DialogTemplate& dialog, DialogProc procedure) override {
        return HeadlessDialogPort::run(dialog, std::move(procedure), nullptr);
    }
    Dialog* createDialog(const DialogTemplate&, DialogProc) override { return nullptr; }
};

class NoPrinters final : public PrinterPort {
public:
    bool printDialog(PrintSetup&) override { return false; }
    std::unique_ptr<PrinterSurface> createSurface(const PrinterChoice&) override { return {}; }
};

class HeadlessWait final : public WaitPort {
public:
    void waitForEnd(ChildProgram& program) override {
        while (program.poll(1000, [](const std::string&) {})) {
        }
    }
};

class NullWindow final : public WindowHost {
public:
    void setCursor(CursorShape) override {}
    void captureMouse() override {}
    void releaseMouse() override {}
    void invalidate(bool) override {}
    void update() override {}
    void closeCover() override {}
    void quit(int) override {}
    void showLogFile(const std::string&) override {}
    int clientWidth() const override { return 0; }
    int clientHeight() const override { return 0; }
    void showBand(int, int, int, int) override {}
    void hideBand() override {}
    bool savePlot(const std::string&, std::string& error) override {
        error = "there is no window";
        return false;
    }
    void setTitle(const std::string&) override {}
    void copyText(const std::string&) override {}
};

HeadlessMessagePort headlessMessages;
CancellingChoosers cancellingChoosers;
HeadlessDialogs headlessDialogs;
NoPrinters noPrinters;
HeadlessWait headlessWait;
NullWindow nullWindow;

const Ports headless{&headlessMessages, &cancellingChoosers, &headlessDialogs,
                     &noPrinters,       &headlessWait,       &nullWindow};

Ports current = headless;

template <typename Port> Port* orDefault(Port* port, Port* Ports::*field) {
    return port != nullptr ? port : headless.*field;
}

} // namespace

const Ports& ports() { return current; }

void installPorts(const Ports& installed) {
    current = {orDefault(installed.messages, &Ports::messages),
               orDefault(installed.choosers, &Ports::choosers),
               orDefault(installed.dialogs, &Ports::dialogs),
               orDefault(installed.printers, &Ports::printers),
               orDefault(installed.waiting, &Ports::waiting),
               orDefault(installed.window, &Ports::window)};
}

void resetPorts() { current = headless; }

void setMessagePort(MessagePort* port) { current.messages = orDefault(port, &Ports::messages); }
void setChooserPort(ChooserPort* port) { current.choosers = orDefault(port, &Ports::choosers); }
void setDialogPort(DialogPort* port) { current.dialogs = orDefault(port, &Ports::dialogs); }
void setPrinterPort(PrinterPort* port) { current.printers = orDefault(port, &Ports::printers); }
void setWaitPort(WaitPort* port) { current.waiting = orDefault(port, &Ports::waiting); }
void setWindowHost(WindowHost* host) { current.window = orDefault(host, &Ports::window); }

} // namespace corvane
