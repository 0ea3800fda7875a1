// The desktop program on a virtual X display (xvfb-run; skipped without it): started on the
// two-copper example, it fits it, paints the plot and saves its own screenshot
// (CORVANE_SCREENSHOT), whose frame must stand where the layout puts it on a 1024x768 screen.
#include <QImage>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "platform/recording_surface.h"
#include "plot/axes.h"
#include "plot/plot_settings.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

TEST(CorvaneOnXvfb, FitsTheExampleAndShowsTheFrameWhereTheLayoutPutsIt) {
    if (std::system("command -v xvfb-run >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "xvfb-run is not installed (scripts/install-deps installs it)";
    testing::ScratchDir dir;
    std::filesystem::copy_file(CORVANE_SOURCE_DIR "/examples/cu2-dimer.qpi",
                               dir.file("cu2-dimer.qpi"));
    const std::string command = "cd '" + dir.path() + "' && CORVANE_SCREENSHOT='" +
                                dir.file("shot.png") +
                                "' timeout 20 xvfb-run -a -s '-screen 0 1024x768x24' '" +
                                CORVANE_BIN_DIR "/corvane' cu2-dimer.qpi > program.txt 2>&1";
    const int status = std::system(command.c_str());
    ASSERT_EQ(status, 0) << dir.read("program.txt");
    EXPECT_TRUE(dir.has("cu2-dimer.qpo")) << dir.listing();

    QImage shot;
    ASSERT_TRUE(shot.load(QString::fromStdString(dir.file("shot.png"))));
    const QStringList origin = shot.text("plot-origin").split(',');
    ASSERT_EQ(origin.size(), 2);
    const int x0 = origin[0].toInt(), y0 = origin[1].toInt();
    EXPECT_EQ(x0, 0);
    EXPECT_GT(y0, 10); // the menu bar above the plot
    EXPECT_EQ(shot.size(), QSize(1024, 705));

    resetPlot();
    RecordingSurface screen(1024, 768);
    measureDevice(screen);
    initPlotSettings();
    layoutFrame();
    // The border around the data rectangle, 2 pixels wide: its inner pixels in the middle of
    // each side.
    const PlotLayout& l = plotLayout;
    const int left = x0 + l.frameLeft - frameMarginX(), right = x0 + l.frameRight + frameMarginX();
    const int top = y0 + l.frameTop - frameMarginY(), bottom = y0 + l.frameBottom + frameMarginY();
    const int midX = (left + right) / 2, midY = (top + bottom) / 2;
    const QColor black(Qt::black);
    EXPECT_EQ(shot.pixelColor(left, midY), black);
    EXPECT_EQ(shot.pixelColor(right - 1, midY), black);
    EXPECT_EQ(shot.pixelColor(midX, top), black);
    EXPECT_EQ(shot.pixelColor(midX, bottom - 1), black);
    EXPECT_EQ(shot.pixelColor(left - 3, midY), QColor(Qt::white));
    EXPECT_EQ(shot.pixelColor(x0 + 2, y0 + 2), QColor(Qt::white));
}

} // namespace
} // namespace corvane
