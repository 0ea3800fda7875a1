#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <gtest/gtest.h>

#include "qt/painter_surface.h"
#include "qt/plot_export.h"
#include "support/fixtures.h"

namespace corvane {
namespace {

bool dark(const QImage& image, int x, int y) { return qGray(image.pixel(x, y)) < 128; }

TEST(PainterSurface, DrawsPixelForPixelAsThePlotPlacesThem) {
    testing::ScratchDir dir;
    std::string error;
    exportPlot(dir.file("warm-up.png"), 1, 1, error); // makes the application the painter needs
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

} // namespace
} // namespace corvane
