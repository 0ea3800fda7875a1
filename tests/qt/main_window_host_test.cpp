// The main window's Qt host under the offscreen platform: the menu bar mirrors the shell's
// menu, the cover page, a dropped report painted with its frame, the log window.
#include <QAction>
#include <QApplication>
#include <QDropEvent>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPageLayout>
#include <QPlainTextEdit>
#include <QPrinter>
#include <QScrollBar>
#include <QTest>
#include <QUrl>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>

#include "fit/fit_document.h"
#include "fit/report.h"
#include "platform/ports.h"
#include "plot/axes.h"
#include "plot/plot_settings.h"
#include "qt/dialog_host.h"
#include "qt/main_window_host.h"
#include "qt/platform_services.h"
#include "qt/printer_port.h"
#include "resources/resources.h"
#include "support/fixtures.h"
#include "support/qt_application.h"

namespace corvane {
namespace {

class MainWindowHostTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing::ensureApplication(); }
    void SetUp() override {
        resetPlot();
        host = std::make_unique<MainWindowHost>();
        setWindowHost(host.get());
        host->start({{1024, 768, 270.9, 203.2}, 96});
        host->show();
    }

    // A report of two copper sites, two data points and one calculation.
    std::string writeReport() {
        auto doc = std::make_unique<FitDocument>();
        doc->title = "Cu2";
        doc->siteCount = 2;
        doc->sites[0].spin = doc->sites[1].spin = 1;
        doc->interactions[0] = {1, 2, 5};
        doc->pairCount = 2;
        doc->pairs[0] = {2, 0.5};
        doc->pairs[1] = {300, 0.7};
        doc->calculationCount = 1;
        doc->currentCalculation = 0;
        doc->calculations[0].fittedValues[0] = 0.5;
        doc->calculations[0].fittedValues[1] = 0.7;
        return dir.write("cu2.qpo", reportText(*doc, "d"));
    }
    void drop(const std::string& path) {
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(QString::fromStdString(path))});
        // Straight to the window's handlers: without a drag in progress the application would
        // route a drop nowhere. The drop goes only where the enter was accepted.
        QObject& window = *host;
        QDragEnterEvent enter(QPoint(500, 300), Qt::CopyAction, &data, Qt::LeftButton,
                              Qt::NoModifier);
        window.event(&enter);
        if (!enter.isAccepted()) return;
        QDropEvent event(QPointF(500, 300), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        window.event(&event);
        EXPECT_TRUE(event.isAccepted());
        // Loaded once the drop is over.
        EXPECT_TRUE(QTest::qWaitFor([] { return plotSettings.plotLoaded == 1; }, 2000));
    }

    testing::ScratchDir dir;
    testing::RecordingPort messages;
    std::unique_ptr<MainWindowHost> host;
};

TEST_F(MainWindowHostTest, TheMenuBarMirrorsTheShellsMenu) {
    const QList<QAction*> bar = host->menuBar()->actions();
    ASSERT_EQ(bar.size(), 7);
    for (int k = 0; k < 7; ++k) EXPECT_EQ(bar[k]->isEnabled(), k == 0 || k == 6) << k;
    ASSERT_NE(bar[0]->menu(), nullptr);
    EXPECT_EQ(bar[0]->menu()->actions().size(), 7);

    // Checkable only while checked; a command's mark follows the shell, not Qt's own toggle.
    QAction* fixRatio = host->action(idmFixRatio);
    QAction* grid = host->action(idmGridLines);
    EXPECT_TRUE(fixRatio->isCheckable() && fixRatio->isChecked());
    EXPECT_FALSE(grid->isCheckable());
    grid->trigger();
    EXPECT_EQ(plotSettings.gridLines, 1);
    EXPECT_TRUE(grid->isCheckable() && grid->isChecked());
    grid->trigger();
    EXPECT_FALSE(grid->isCheckable() || grid->isChecked());
    host->action(idmShowInfo)->setEnabled(true);
    host->action(idmShowInfo)->trigger(); // the results box: marked while on
    EXPECT_TRUE(host->action(idmShowInfo)->isChecked());
    EXPECT_EQ(plotSettings.showInfo, 1);
}

TEST_F(MainWindowHostTest, TheWindowAndItsCoverPageStandWhereTheLayoutSays) {
    EXPECT_FALSE(host->windowIcon().isNull());
    EXPECT_EQ(host->size(), QSize(1024, 705));
    ASSERT_NE(host->coverPage(), nullptr);
    const CoverPosition at = coverPosition();
    EXPECT_EQ(host->coverPage()->geometry(), QRect(at.x, at.y, coverWidth, coverHeight));
    // Not painted white: the picture on grey.
    const QImage cover = host->coverPage()->grab().toImage();
    EXPECT_NE(cover.pixelColor(2, 2), QColor(Qt::white));

    QTest::mouseRelease(host->coverPage(), Qt::LeftButton, {}, QPoint(100, 100));
    EXPECT_EQ(host->coverPage(), nullptr);
    host->closeCover(); // once gone, nothing
}

TEST_F(MainWindowHostTest, ADroppedReportIsPlottedWithTheFrameInBlack) {
    drop(dir.write("notes.txt", "x"));
    EXPECT_EQ(plotSettings.plotLoaded, 0);

    drop(writeReport());
    ASSERT_EQ(plotSettings.plotLoaded, 1)
        << (messages.messages.empty() ? std::string() : messages.messages.back().text);
    for (int position = 1; position <= 5; ++position)
        EXPECT_TRUE(host->menuBar()->actions()[position]->isEnabled()) << position;
    EXPECT_EQ(host->coverPage(), nullptr);

    // The left side of the border around the data rectangle, on white.
    const QImage plot = host->plotWidget().grab().toImage();
    const int left = plotLayout.frameLeft - frameMarginX();
    const int midY = (plotLayout.frameTop + plotLayout.frameBottom) / 2;
    EXPECT_EQ(plot.pixelColor(left, midY), QColor(Qt::black));
    EXPECT_EQ(plot.pixelColor(left - 3, midY), QColor(Qt::white));
}

TEST_F(MainWindowHostTest, ADetailsClickOpensTheCurvesParametersAndAZoomDragGrowsTheFrame) {
    QtDialogPort dialogs(host.get());
    setDialogPort(&dialogs);
    drop(writeReport());
    ASSERT_EQ(plotSettings.plotLoaded, 1);
    QWidget& plot = host->plotWidget();

    host->action(idmDetails)->trigger();
    EXPECT_EQ(plot.cursor().shape(), Qt::CrossCursor);
    // Midway along the curve's only segment.
    QTest::mouseClick(&plot, Qt::LeftButton, {}, QPoint(plotX(151.0), plotY(0.6)));
    QWidget* info = nullptr;
    for (QWidget* w : QApplication::topLevelWidgets())
        if (w->isVisible() && w->windowTitle() == "Fitting Parameter Information") info = w;
    ASSERT_NE(info, nullptr);
    auto* number = info->findChild<QLineEdit*>("700");
    ASSERT_NE(number, nullptr);
    EXPECT_EQ(number->text(), "1");
    info->close();

    // Fixed ratio: the zoom grows by the pointer's travel over the plot's device height.
    host->action(idmZoomByMouse)->trigger();
    plot.grab(); // laid out at the present zoom
    const int width = plotLayout.frameRight - plotLayout.frameLeft;
    const QPoint from(plot.width() / 2, plot.height() / 2);
    QTest::mousePress(&plot, Qt::LeftButton, {}, from);
    QMouseEvent move(QEvent::MouseMove, QPointF(from + QPoint(20, 10)),
                     plot.mapToGlobal(QPointF(from + QPoint(20, 10))), Qt::NoButton, Qt::LeftButton,
                     Qt::NoModifier);
    QApplication::sendEvent(&plot, &move);
    QTest::mouseRelease(&plot, Qt::LeftButton, {}, from + QPoint(20, 10));
    const double factor = 1.0 + 30.0 / plotLayout.deviceHeight;
    EXPECT_FLOAT_EQ(plotSettings.zoom, static_cast<float>(factor));
    plot.grab();
    EXPECT_NEAR(plotLayout.frameRight - plotLayout.frameLeft, width * factor, 2.0);
    setDialogPort(nullptr);
}

// The darkest pixel of row y within reach of x, as a grey level.
int darkestNear(const QImage& image, int x, int y, int reach) {
    int darkest = 255;
    for (int at = std::max(0, x - reach); at <= std::min(image.width() - 1, x + reach); ++at)
        darkest = std::min(darkest, qGray(image.pixel(at, y)));
    return darkest;
}

TEST_F(MainWindowHostTest, PrintGivesOnePdfPageOfThePlotAndExportGivesThePlotAsTheWindowShowsIt) {
    // The print dialog prints to a PDF file.
    const std::string pdf = dir.file("printed.pdf");
    QPageLayout page;
    int resolution = 0;
    QtPrinterPort printers(host.get(), [&](QPrinter& printer, bool) {
        printer.setOutputFormat(QPrinter::PdfFormat);
        printer.setOutputFileName(QString::fromStdString(pdf));
        page = printer.pageLayout();
        resolution = printer.resolution();
        return true;
    });
    setPrinterPort(&printers);
    drop(writeReport());
    host->action(idmPrint)->trigger();
    setPrinterPort(nullptr);

    // One page, with the left side of the frame where the printer's layout put it.
    const PlotLayout printed = plotLayout;
    const std::string prefix = dir.file("page");
    const std::string render = "pdftoppm -r 100 -png '" + pdf + "' '" + prefix + "'";
    ASSERT_EQ(std::system(render.c_str()), 0);
    EXPECT_EQ(dir.listing().find("page-2"), std::string::npos);
    QImage image(QString::fromStdString(prefix + "-1.png"));
    ASSERT_FALSE(image.isNull());
    const QRect paint = page.paintRectPixels(resolution);
    const double scale = 100.0 / resolution;
    const int midY = int((paint.top() + (printed.frameTop + printed.frameBottom) / 2) * scale);
    const int left = int((paint.left() + printed.frameLeft - frameMarginX()) * scale);
    EXPECT_LT(darkestNear(image, left, midY, 3), 100);
    EXPECT_EQ(darkestNear(image, left - 40, midY, 3), 255); // white outside

    // Export Plot: the PNG at the window's size with the frame where the window has it.
    ScriptedChoosers choosers;
    choosers.saveAnswers.push_back(SavedFile{dir.file("plot.png"), 1});
    const QImage window = host->plotWidget().grab().toImage();
    const PlotLayout shownLayout = plotLayout;
    host->action(idmExportPlot)->trigger();
    const QImage png(QString::fromStdString(dir.file("plot.png")));
    ASSERT_EQ(png.size(), window.size());
    const int y = (shownLayout.frameTop + shownLayout.frameBottom) / 2;
    const int x = shownLayout.frameLeft - frameMarginX();
    EXPECT_EQ(png.pixelColor(x, y), QColor(Qt::black));
    EXPECT_EQ(png.pixelColor(x - 3, y), QColor(Qt::white));
    EXPECT_EQ(png.pixelColor(plotX(300), plotY(0.7)), QColor(Qt::red)); // the marker of 300 K
    EXPECT_TRUE(messages.messages.empty());
}

TEST_F(MainWindowHostTest, TheLogWindowFollowsItsFileToTheEnd) {
    std::string text;
    for (int line = 0; line < 200; ++line) text += "iteration " + std::to_string(line) + "\n";
    const std::string path = dir.write("corefit.log", text);
    host->showLogFile(path);
    auto* log = qobject_cast<QPlainTextEdit*>(host->logWindow());
    ASSERT_NE(log, nullptr);
    EXPECT_TRUE(log->isVisible() && log->isReadOnly());
    EXPECT_TRUE(log->toPlainText().contains("iteration 199"));

    std::ofstream(path, std::ios::app) << "the end\n";
    EXPECT_TRUE(QTest::qWaitFor([log] { return log->toPlainText().contains("the end"); }, 3000));
    EXPECT_EQ(log->verticalScrollBar()->value(), log->verticalScrollBar()->maximum());
    host->showLogFile(path); // once more: the same window
    EXPECT_EQ(host->logWindow(), log);
}

} // namespace
} // namespace corvane
