// newQPI's data preview: the numbers at the ends of its axes, short and drawn whole.
#include <QImage>
#include <gtest/gtest.h>

#include "data_preview.h"
#include "support/qt_application.h"

namespace newqpi {
namespace {

TEST(DataPreview, AxisEndsAreAsShortAsTheyCanBeAndStillTrue) {
    const struct {
        double value, low, high;
        const char* text;
    } cases[] = {
        {0.00363377, 0.00363377, 0.0051, "0.003634"}, // once shown as "00363377", cut
        {0.0051, 0.00363377, 0.0051, "0.0051"},
        {1.8, 1.8, 300, "1.8"}, // not "2": half a percent of the value at most
        {300, 1.8, 300, "300"},
        {299.96, 1.8, 299.96, "300"},
        {-2.5e-5, -2.5e-5, 1.2e-4, "-2.5e-5"},
        {1.2e-4, -2.5e-5, 1.2e-4, "0.00012"},
        {0.003, 0.003, 0.372, "0.003"},
        {5.581, 5.581, 288.445, "5.6"},
        {0.0, 0.0, 1.5, "0"},
        {-1e-9, -1e-9, 2.0, "-1e-9"},
        {123456.7, 100000, 123456.7, "123457"},
        {6.02e23, 1e23, 6.02e23, "6.02e23"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(axisEndText(c.value, c.low, c.high).toStdString(), c.text) << c.value;
}

// The value axis's texts fit in the column left of the frame: nothing is drawn in the margin at
// the widget's left edge, where a text too long for its column would end up.
TEST(DataPreview, TheValueAxisTextsAreDrawnWhole) {
    corvane::testing::ensureApplication();
    DataPreview preview;
    preview.resize(preview.minimumSize());
    const QVector<QPointF> small = {{1.8, 0.00363377}, {150, 0.0049}, {300, 0.0051}};
    const QVector<QPointF> tiny = {{2, -1.23456e-5}, {300, 1.5e-4}};
    for (const QVector<QPointF>& pairs : {small, tiny}) {
        preview.setPairs(pairs, "chi");
        const DataPreview::Axes axes = preview.axes();
        const QRect frame = preview.frame(axes);
        const QImage image = preview.grab().toImage();
        const QRgb base = preview.palette().base().color().rgb();
        const int margin = QFontMetrics(preview.font()).height() / 2;
        int inkInMargin = 0, inkInColumn = 0;
        for (int y = frame.top(); y <= frame.bottom(); ++y) {
            for (int x = 0; x < margin - 1; ++x) inkInMargin += image.pixel(x, y) != base;
            for (int x = margin; x < frame.left(); ++x) inkInColumn += image.pixel(x, y) != base;
        }
        EXPECT_EQ(inkInMargin, 0) << axes.vLowText.toStdString();
        EXPECT_GT(inkInColumn, 0);
    }
}

} // namespace
} // namespace newqpi
