// The shell without a display: a host that records what the window procedure asks of it, and a
// fixture with the headless dialogs, choosers and message port installed and the shell started.
#pragma once

#include <chrono>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "fit/fit_document.h"
#include "platform/choosers.h"
#include "platform/headless_dialog.h"
#include "platform/recording_surface.h"
#include "plot/plot_settings.h"
#include "resources/dialog_ids.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "support/fixtures.h"
#include "support/stand_in_engine.h"

namespace corvane::testing {

class RecordingHost final : public WindowHost {
public:
    void setCursor(CursorShape shape) override { cursor = shape; }
    void captureMouse() override { captured = true; }
    void releaseMouse() override { captured = false; }
    void invalidate(bool) override { ++repaints; }
    void update() override {}
    void closeCover() override { coverOpen = false; }
    void quit(int code) override { exitCode = code; }
    void showLogFile(const std::string& path) override { log = path; }
    int clientWidth() const override { return 1024; }
    int clientHeight() const override { return 705; }
    void showBand(int x0, int y0, int x1, int y1) override { band = {x0, y0, x1, y1}; }
    void hideBand() override { band.clear(); }
    void setTitle(const std::string& text) override { title = text; }
    void copyText(const std::string& text) override { clipboard = text; }
    bool savePlot(const std::string& path, std::string& error) override {
        saved.push_back(path);
        error = saveError;
        return saveError.empty();
    }

    CursorShape cursor = CursorShape::Arrow;
    bool captured = false;
    int repaints = 0;
    bool coverOpen = true;
    int exitCode = -1;
    std::string log;
    std::vector<int> band;
    std::vector<std::string> saved;
    std::string saveError; // "" saves
    std::string title, clipboard;
};

class ShellTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetPlot();
        setWindowHost(&host);
        startUp(screen);
    }
    void TearDown() override {
        unsetenv("CORVANE_ENGINE");
        setWindowHost(nullptr);
    }

    void useEngine(const std::string& body) { useScriptEngine(dir, body); }
    // A loaded document: the pairs (10 K, 0.5) and (300 K, 0.8), two calculations over both.
    void loadTwoPairs() {
        fitDocument.pairCount = 2;
        fitDocument.pairs[0] = {10, 0.5};
        fitDocument.pairs[1] = {300, 0.8};
        fitDocument.calculationCount = 2;
        for (int k = 0; k < 2; ++k) fitDocument.calculations[slot(k + 1)].lastPair = 2;
        refreshAfterLoad(false);
    }
    bool command(int id) { return MainWndProc({WindowMessage::Command, id, 0, 0, nullptr}); }
    static void retype(HeadlessDialog& d, int id, const std::string& text) {
        d.clearText(id);
        d.type(id, text);
    }
    // The progress dialog of the next run: during (if any) first, then fed until it ends; when
    // it waits for Close, its status line goes to status and Close is pressed.
    void expectProgress(std::string* status = nullptr, std::function<void()> during = nullptr) {
        dialogs.expect("DL_SPIN", [status, during](HeadlessDialog& d) {
            if (during) during();
            for (int round = 0; round < 2000 && !d.hasEnded() && d.tick(); ++round)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (status != nullptr) *status = d.text(SpinControl::statusLine);
            if (!d.hasEnded()) d.click(SpinControl::close);
        });
    }

    RecordingHost host;
    RecordingSurface screen{1024, 768};
    ScratchDir dir;
    RecordingPort messages;
    HeadlessDialogPort dialogs;
    ScriptedChoosers choosers;
};

} // namespace corvane::testing
