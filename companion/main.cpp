// newQPI: creates a fitting input file (.qpi) for Corvane.
//   newQPI [--qpname-token TOKEN] [FILE.qpi]
// opens one window with the whole problem; Save writes the file and, when Corvane's File > New
// started newQPI with its token, hands the file's name to that window through the name store;
// Cancel ends without a name. With FILE.qpi the window starts from that input file.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QIcon>
#include <cstdio>
#include <string>

#include "newqpi_window.h"
#include "platform/messages.h"
#include "platform/ports.h"
#include "qpname/qpname.h"
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
    const QCommandLineOption tokenOption(
        QStringLiteral("qpname-token"),
        QStringLiteral("Hand the saved file's name to the Corvane window that gave this token "
                       "(File > New passes it)."),
        QStringLiteral("TOKEN"));
    parser.addOption(tokenOption);
    parser.addPositionalArgument(QStringLiteral("FILE.qpi"),
                                 QStringLiteral("An input file to start from (optional)."));
    parser.process(app);
    if (parser.positionalArguments().size() > 1) parser.showHelp(2);
    const std::string token = parser.value(tokenOption).toStdString();
    if (parser.isSet(tokenOption) && !corvane::isQpnameToken(token)) {
        std::fprintf(stderr, "newQPI: --qpname-token: \"%s\" is not a token Corvane gives\n",
                     token.c_str());
        return 2;
    }

    corvane::QtMessagePort messages;
    corvane::setMessagePort(&messages);
    newqpi::NewQpiWindow window;
    window.setQpnameToken(token);
    window.show();
    if (parser.positionalArguments().size() == 1)
        window.openInputFile(QDir::current().absoluteFilePath(parser.positionalArguments()[0]));
    const int status = QApplication::exec();
    corvane::setMessagePort(nullptr);
    return status;
}
