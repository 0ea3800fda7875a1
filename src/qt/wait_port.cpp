#include "qt/wait_port.h"

#include <QCursor>
#include <QEvent>
#include <QEventLoop>
#include <QGuiApplication>
#include <QSocketNotifier>
#include <QTimer>

namespace corvane {

namespace {

// Drops the user's input to every window of the program while it is installed.
class InputBlocker final : public QObject {
public:
    InputBlocker() { QCoreApplication::instance()->installEventFilter(this); }
    ~InputBlocker() override { QCoreApplication::instance()->removeEventFilter(this); }
    InputBlocker(const InputBlocker&) = delete;
    InputBlocker& operator=(const InputBlocker&) = delete;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        switch (event->type()) {
        case QEvent::MouseButtonPress:
        case QEvent::MouseButtonRelease:
        case QEvent::MouseButtonDblClick:
        case QEvent::MouseMove:
        case QEvent::Wheel:
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::ShortcutOverride:
        case QEvent::Shortcut:
        case QEvent::ContextMenu:
        case QEvent::TouchBegin:
        case QEvent::TouchUpdate:
        case QEvent::TouchEnd:
        case QEvent::DragEnter:
        case QEvent::DragMove:
        case QEvent::Drop:
        case QEvent::Close:
            return true;
        default:
            return QObject::eventFilter(watched, event);
        }
    }
};

constexpr int pollMilliseconds = 200; // also looks without a readiness signal, to be safe

} // namespace

void QtWaitPort::waitForEnd(ChildProgram& program) {
    const auto drop = [](const std::string&) {};
    if (!program.poll(0, drop)) return;
    InputBlocker blocker;
    QGuiApplication::setOverrideCursor(QCursor(Qt::BusyCursor));
    QEventLoop loop;
    const auto look = [&program, &loop, &drop] {
        if (!program.poll(0, drop)) loop.quit();
    };
    QSocketNotifier notifier(program.readyDescriptor(), QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &loop, look);
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &loop, look);
    timer.start(pollMilliseconds);
    loop.exec();
    QGuiApplication::restoreOverrideCursor();
}

} // namespace corvane
