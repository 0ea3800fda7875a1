// Print, Print Setup and Export Plot of the File menu, with a printer port and a file chooser
// that answer from a script.
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "fit/fit_document.h"
#include "fit/run_state.h"
#include "platform/ports.h"
#include "platform/printing.h"
#include "platform/recording_surface.h"
#include "plot/plot_settings.h"
#include "resources/resources.h"
#include "shell/commands.h"
#include "shell/main_window.h"
#include "support/shell_fixture.h"

namespace corvane {
namespace {

// The printer named by a dialog.
class NamedPrinter final : public PrinterChoice {
public:
    explicit NamedPrinter(std::string printerName) : name(std::move(printerName)) {}
    std::string name;
};

// One page's calls, with the job's name.
struct PrintedJob {
    std::string name;
    int pages = 0;
    bool ended = false;
    bool printingWhilePainted = false;
    std::vector<SurfaceCall> calls;
};

class Page final : public PrinterSurface {
public:
    explicit Page(std::vector<PrintedJob>& jobs) : jobs_(jobs) {}
    bool startDoc(const std::string& name) override {
        jobs_.push_back(PrintedJob{name, 0, false, false, {}});
        return true;
    }
    bool startPage() override {
        ++jobs_.back().pages;
        return true;
    }
    Surface& surface() override {
        jobs_.back().printingWhilePainted = plotLayout.printing == 1;
        return paper_;
    }
    bool endPage() override {
        jobs_.back().calls = paper_.calls;
        return true;
    }
    bool endDoc() override { return jobs_.back().ended = true; }

private:
    std::vector<PrintedJob>& jobs_;
    RecordingSurface paper_{4800, 6600};
};

// Each dialog answers with the next printer name ("" cancels) and records what it was given.
class ScriptedPrinters final : public PrinterPort {
public:
    ScriptedPrinters() { setPrinterPort(this); }
    ~ScriptedPrinters() override { setPrinterPort(nullptr); }
    bool printDialog(PrintSetup& setup) override {
        const auto* from = dynamic_cast<const NamedPrinter*>(setup.devices.get());
        dialogs.push_back({setup.flags, from != nullptr ? from->name : "default"});
        const std::string answer = answers.empty() ? "" : answers.front();
        if (!answers.empty()) answers.erase(answers.begin());
        if (answer.empty()) return false;
        setup.devices = std::make_shared<NamedPrinter>(answer);
        if ((setup.flags & pdReturnDc) != 0 && (setup.flags & pdPrintSetup) == 0)
            setup.surface = std::make_unique<Page>(jobs);
        return true;
    }
    std::unique_ptr<PrinterSurface> createSurface(const PrinterChoice&) override { return {}; }

    struct Shown {
        unsigned flags;
        std::string startedOn;
    };
    std::vector<std::string> answers;
    std::vector<Shown> dialogs;
    std::vector<PrintedJob> jobs;
};

class PrintingTest : public testing::ShellTest {
protected:
    ScriptedPrinters printers;
};

TEST_F(PrintingTest, PrintPaintsOnePageAndSetupChoosesThePrinterOfTheNextPrintOnly) {
    command(idmPrint); // cancelled
    ASSERT_EQ(messages.messages.size(), 1u);
    EXPECT_EQ(messages.messages[0].text, "Cannot print!");
    EXPECT_FALSE(host.captured);
    EXPECT_EQ(host.cursor, CursorShape::Arrow);

    const unsigned flags = shell.printSetup.flags;
    printers.answers = {"laser", "laser", "inkjet"};
    command(idmPrintSetup);
    EXPECT_EQ(printers.dialogs.back().flags, flags | pdPrintSetup);
    EXPECT_EQ(shell.printSetup.flags, flags);

    loadTwoPairs();
    runState.reportPath = "/data/cu2.qpo";
    command(idmDetails);
    command(idmPrint);
    EXPECT_EQ(printers.dialogs.back().startedOn, "laser");
    ASSERT_EQ(printers.jobs.size(), 1u);
    const PrintedJob& job = printers.jobs[0];
    EXPECT_EQ(job.name, "/data/cu2.qpo");
    EXPECT_EQ(job.pages, 1);
    EXPECT_TRUE(job.ended && job.printingWhilePainted);
    EXPECT_EQ(plotLayout.printing, 0);
    // Laid out on the page: the frame spans most of its width.
    EXPECT_EQ(plotLayout.deviceWidth, 4800);
    EXPECT_GT(plotLayout.frameRight - plotLayout.frameLeft, 2400);
    EXPECT_FALSE(job.calls.empty());
    EXPECT_EQ(host.cursor, CursorShape::Cross); // Details is still on
    EXPECT_FALSE(host.captured);

    command(idmPrint);
    EXPECT_EQ(printers.dialogs.back().startedOn, "default");
    EXPECT_EQ(messages.messages.size(), 1u);
}

TEST_F(PrintingTest, ExportPlotSavesBesideTheReportWithTheChosenFormat) {
    runState.reportPath = "/data/run.1/cu2.qpo";
    choosers.saveAnswers = {std::nullopt, SavedFile{"/tmp/plot", 2}, SavedFile{"/tmp/a.SVG", 1}};
    command(idmExportPlot); // cancelled
    EXPECT_TRUE(host.saved.empty());
    ASSERT_EQ(choosers.saveRequests.size(), 1u);
    EXPECT_EQ(choosers.saveRequests[0].initialPath, "/data/run.1/cu2.png");
    EXPECT_EQ(choosers.saveRequests[0].filters.size(), 3u);
    command(idmExportPlot);
    host.saveError = "disk full";
    command(idmExportPlot);
    EXPECT_EQ(host.saved, (std::vector<std::string>{"/tmp/plot.pdf", "/tmp/a.SVG"}));
    ASSERT_EQ(messages.messages.size(), 1u);
    EXPECT_EQ(messages.messages[0].text, "Cannot export the plot to /tmp/a.SVG: disk full");
}

} // namespace
} // namespace corvane
