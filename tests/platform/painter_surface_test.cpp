#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <gtest/gtest.h>

#include "fit/fit_document.h"
#include "platform/files.h"
#include "plot/plot_settings.h"
#include "qt/painter_surface.h"
#include "qt/plot_export.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

bool dark(const QImage& image, int x, int y) { return qGray(image.pixel(x, y)) < 128; }

// exportPlot makes the application the painter needs; every test starts with one.
class PainterSurfaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        exportPlot(dir.file("warm-up.png"), 1, 1, error);
    }
    testing::ScratchDir dir;
};

TEST_F(PainterSurfaceTest, DrawsPixelForPixelAsThePlotPlacesThem) {
    QImage image(60, 40, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    {
        PainterSurface surface(painter, {60, 40, 15.875, 10.583}, 96);
        EXPECT_EQ(surface.textMetrics().height, 16);
        surface.moveTo(5, 5);
        surface.lineTo(15, 5); // the end pixel stays white
        surface.lineTo(15, 9);
        surface.selectBrush({0x0000FF});
        surface.rectangle(20, 10, 30, 20);
        surface.selectPen({PenStyle::Solid, 1, 0xFF0000});
        surface.moveTo(40, 30);
        surface.lineTo(50, 30);
    }
    painter.end();
    for (int x = 5; x < 15; ++x) EXPECT_TRUE(dark(image, x, 5)) << x;
    EXPECT_TRUE(dark(image, 15, 5) && dark(image, 15, 8) && !dark(image, 15, 9));
    EXPECT_TRUE(dark(image, 20, 15) && dark(image, 29, 15) && !dark(image, 30, 15));
    EXPECT_EQ(image.pixel(25, 15), qRgb(255, 0, 0));
    EXPECT_EQ(image.pixel(45, 30), qRgb(0, 0, 255));
}

TEST_F(PainterSurfaceTest, ThePlotIsWrittenAsPngPdfOrSvgWholeOrNotAtAll) {
    resetPlot();
    resetFitDocument();
    fitDocument.pairCount = 2;
    fitDocument.pairs[0] = {100, 0.5};
    fitDocument.pairs[1] = {200, 1.0};
    showPlotForExport(false, false);

    std::string error;
    ASSERT_TRUE(exportPlot(dir.file("plot.PNG"), 1024, 768, error)) << error;
    QImage image(QString::fromStdString(dir.file("plot.PNG")));
    EXPECT_EQ(image.size(), QSize(1024, 768));
    EXPECT_EQ(image.pixel(883, 105), qRgb(255, 0, 0)); // the marker of (200 K, 1.0)
    EXPECT_EQ(image.pixel(123, 300), qRgb(0, 0, 0));   // the frame
    EXPECT_EQ(image.pixel(5, 5), qRgb(255, 255, 255));
    EXPECT_EQ(plotLayout.printScale, 1.0f);

    ASSERT_TRUE(exportPlot(dir.file("plot.pdf"), 800, 600, error)) << error;
    EXPECT_EQ(dir.read("plot.pdf").rfind("%PDF-", 0), 0u);
    ASSERT_TRUE(exportPlot(dir.file("plot.svg"), 800, 600, error)) << error;
    EXPECT_NE(dir.read("plot.svg").find("<svg"), std::string::npos);
    EXPECT_NE(dir.read("plot.svg").find("Temperature (K)"), std::string::npos);

    EXPECT_FALSE(exportPlot(dir.file("plot.bmp"), 800, 600, error));
    EXPECT_EQ(error,
              "unknown picture format of " + dir.file("plot.bmp") + ": use .png, .pdf or .svg");
    EXPECT_FALSE(exportPlot(dir.file("wide.png"), 0, 600, error));
    EXPECT_FALSE(exportPlot(dir.file("no/such/dir.png"), 80, 60, error));
    EXPECT_EQ(error.rfind("cannot write " + dir.file("no/such/dir.png") + ": ", 0), 0u);
    EXPECT_EQ(dir.listing(), "plot.PNG plot.pdf plot.svg warm-up.png");
}

} // namespace
} // namespace corvane
