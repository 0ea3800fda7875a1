// The wait for newQPI on Qt: the windows paint while the program runs, but take no input.
#include <QApplication>
#include <QTest>
#include <QTimer>
#include <QWidget>
#include <gtest/gtest.h>

#include "qt/wait_port.h"

namespace corvane {
namespace {

class CountingWidget final : public QWidget {
public:
    int presses = 0, keys = 0, paints = 0;

protected:
    void mousePressEvent(QMouseEvent*) override { ++presses; }
    void keyPressEvent(QKeyEvent*) override { ++keys; }
    void paintEvent(QPaintEvent*) override { ++paints; }
};

TEST(QtWaitPortTest, TheWindowsPaintButTakeNoInputUntilTheProgramEnds) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    int argc = 1;
    char name[] = "wait_port_test";
    char* argv[] = {name, nullptr};
    QApplication app(argc, argv);
    CountingWidget window;
    window.resize(200, 100);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));

    ChildProgram program;
    std::string error;
    ASSERT_TRUE(program.start("/bin/sh", {"-c", "sleep 0.4"}, error)) << error;
    const int paintsBefore = window.paints;
    QTimer::singleShot(100, &window, [&window] {
        QTest::mouseClick(&window, Qt::LeftButton);
        QTest::keyClick(&window, Qt::Key_Q, Qt::ControlModifier);
        window.update();
    });
    QtWaitPort().waitForEnd(program);
    EXPECT_FALSE(program.poll(0, [](const std::string&) {})); // it has ended
    EXPECT_EQ(window.presses, 0);
    EXPECT_EQ(window.keys, 0);
    EXPECT_GT(window.paints, paintsBefore);

    QTest::mouseClick(&window, Qt::LeftButton); // afterwards input arrives again
    EXPECT_EQ(window.presses, 1);
}

} // namespace
} // namespace corvane
