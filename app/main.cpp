// corvane: the desktop program. The main window on the primary screen, the shell behind it;
//   corvane [FILE.qpi | FILE.qpo]
// fits an input file or plots a report at start, as File > Open and File > Plot do.
//
// With CORVANE_SCREENSHOT=PATH.png in the environment the program saves a picture of its main
// window (the plot widget's origin in the picture kept as the PNG text "plot-origin" = "x,y")
// once the first loaded plot has been painted, and ends; it ends with 3 when no plot was loaded
// within 20 seconds.
#include <QApplication>
#include <QDir>
#include <QImage>
#include <QPixmap>
#include <QScreen>
#include <QTimer>
#include <cstdio>
#include <memory>

#include "platform/ports.h"
#include "plot/plot_settings.h"
#include "qt/dialog_host.h"
#include "qt/main_window_host.h"
#include "qt/platform_services.h"
#include "qt/printer_port.h"
#include "qt/wait_port.h"

namespace {

bool saveScreenshot(corvane::MainWindowHost& window, const QString& path) {
    QImage picture = window.grab().toImage();
    const QPoint origin = window.plotWidget().mapTo(&window, QPoint(0, 0));
    picture.setText(QStringLiteral("plot-origin"),
                    QStringLiteral("%1,%2").arg(origin.x()).arg(origin.y()));
    if (picture.save(path, "PNG")) return true;
    std::fprintf(stderr, "corvane: cannot write the screenshot %s\n", qPrintable(path));
    return false;
}

// Arms the screenshot of CORVANE_SCREENSHOT, when set.
void armScreenshot(corvane::MainWindowHost& window) {
    const QString path = qEnvironmentVariable("CORVANE_SCREENSHOT");
    if (path.isEmpty()) return;
    auto taken = std::make_shared<bool>(false);
    window.afterPaint = [&window, path, taken] {
        if (*taken || corvane::plotSettings.plotLoaded != 1) return;
        *taken = true;
        QTimer::singleShot(0, &window,
                           [&window, path] { window.quit(saveScreenshot(window, path) ? 0 : 1); });
    };
    QTimer::singleShot(20000, &window, [&window, path, taken] {
        if (*taken) return;
        *taken = true;
        std::fprintf(stderr, "corvane: no plot within 20 s; the window as it is: %s\n",
                     qPrintable(path));
        saveScreenshot(window, path);
        window.quit(3);
    });
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("corvane"));
    QApplication::setDesktopFileName(QStringLiteral("corvane"));

    const QStringList arguments = QApplication::arguments();
    if (arguments.size() > 2 || (arguments.size() == 2 && arguments[1].startsWith('-'))) {
        std::fprintf(stderr, "usage: corvane [FILE.qpi | FILE.qpo]\n"
                             "  fits an input file or plots a results report in the window\n");
        return 2;
    }

    corvane::MainWindowHost window;
    QApplication::setWindowIcon(window.windowIcon());
    corvane::QtMessagePort messages(&window);
    corvane::QtChooserPort choosers(&window);
    corvane::QtDialogPort dialogs(&window);
    corvane::QtPrinterPort printers(&window);
    corvane::QtWaitPort waiting;
    corvane::installPorts({&messages, &choosers, &dialogs, &printers, &waiting, &window});
    struct Uninstall {
        ~Uninstall() { corvane::resetPorts(); }
    } uninstall; // before the ports go, on every way out

    const QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) {
        std::fprintf(stderr, "corvane: no screen to show the window on\n");
        return 1;
    }
    window.start(corvane::measureScreen(*screen));
    armScreenshot(window);
    window.show();

    if (arguments.size() == 2) {
        const std::string path = QDir::current().absoluteFilePath(arguments[1]).toStdString();
        QTimer::singleShot(0, &window, [path] { corvane::openFile(path); });
    }
    return QApplication::exec();
}
