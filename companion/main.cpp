// newQPI: creates a fitting input file (.qpi) for Corvane.
//   newQPI [FILE.qpi]
// opens one window with the whole problem; Save writes the file and hands its name to the
// desktop program that started newQPI (File > New) through the name store; Cancel ends without
// a name. With FILE.qpi the window starts from that input file.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QIcon>

#include "newqpi_window.h"
#include "platform/messages.h"
#include "qt/platform_services.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("newQPI"));
    QApplication::setApplicationVersion(QStringLiteral(CORVANE_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("corvane"));
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/corvane/corvane.svg")));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Creates a fitting input file (.qpi) for Corvane."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("FILE.qpi"),
                                 QStringLiteral("An input file to start from (optional)."));
    parser.process(app);
    if (parser.positionalArguments().size() > 1) parser.showHelp(2);

    corvane::QtMessagePort messages;
    corvane::setMessagePort(&messages);
    newqpi::NewQpiWindow window;
    window.show();
    if (parser.positionalArguments().size() == 1)
        window.openInputFile(QDir::current().absoluteFilePath(parser.positionalArguments()[0]));
    const int status = QApplication::exec();
    corvane::setMessagePort(nullptr);
    return status;
}
