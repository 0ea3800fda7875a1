#include "qt/plot_export.h"

#include <QBuffer>
#include <QByteArray>
#include <QGuiApplication>
#include <QImage>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSvgGenerator>
#include <cstdio>
#include <string_view>

#include "platform/files.h"
#include "plot/paint.h"
#include "plot/plot_settings.h"
#include "qt/painter_surface.h"
#include "text/text.h"

// Fontconfig, under Qt's fonts, keeps its configuration for the life of the process; a build
// with LeakSanitizer would report it at every exit of a program that painted text.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig\n"; }

namespace corvane {

namespace {

constexpr double exportDpi = 96.0;

QtMessageHandler previousHandler = nullptr;

void quietStartup(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set"))) return;
    if (previousHandler != nullptr)
        previousHandler(type, context, message);
    else
        std::fprintf(stderr, "%s\n", qPrintable(message));
}

// A QGuiApplication for fonts and painting, on the offscreen platform unless QT_QPA_PLATFORM
// names one; it lives to the end of the process.
void ensureGuiApplication() {
    if (QCoreApplication::instance() != nullptr) return;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    static int argc = 1;
    static char name[] = "corvane";
    static char* argv[] = {name, nullptr};
    // Without a desktop session the platform warns that it has no runtime directory; a
    // picture needs none, so that one warning is kept off the standard error stream.
    previousHandler = qInstallMessageHandler(quietStartup);
    static QGuiApplication* application = new QGuiApplication(argc, argv);
    qInstallMessageHandler(previousHandler);
    (void)application;
}

enum class Format { Png, Pdf, Svg, Unknown };

Format formatOf(const std::string& path) {
    const std::size_t dot = path.find_last_of("./");
    if (dot == std::string::npos || path[dot] != '.') return Format::Unknown;
    const std::string extension = upperCopy(std::string_view(path).substr(dot));
    if (extension == ".PNG") return Format::Png;
    if (extension == ".PDF") return Format::Pdf;
    if (extension == ".SVG") return Format::Svg;
    return Format::Unknown;
}

// paintPlot on painter's device, whose coordinates are mapped to width x height pixels.
void paintOn(QPainter& painter, int width, int height, const ShownSurface* shownAs) {
    painter.setWindow(0, 0, width, height);
    painter.fillRect(0, 0, width, height, Qt::white);
    const DeviceMetrics metrics =
        shownAs != nullptr
            ? shownAs->metrics
            : DeviceMetrics{width, height, width * 25.4 / exportDpi, height * 25.4 / exportDpi};
    PainterSurface surface(painter, metrics, shownAs != nullptr ? shownAs->dotsPerInch : exportDpi);
    const int referenceWidth = plotLayout.referenceWidth;
    plotLayout.referenceWidth = metrics.horizontalResolution;
    paintPlot(surface);
    plotLayout.referenceWidth = referenceWidth;
}

} // namespace

bool exportPlot(const std::string& outputPath, int width, int height, std::string& error,
                const ShownSurface* shownAs) {
    const Format format = formatOf(outputPath);
    if (format == Format::Unknown) {
        error = "unknown picture format of " + outputPath + ": use .png, .pdf or .svg";
        return false;
    }
    if (width < 1 || height < 1 || width > maxExportSide || height > maxExportSide) {
        error = formatC("a picture of %d x %d pixels cannot be made: each side must be 1 to %d",
                        width, height, maxExportSide);
        return false;
    }
    ensureGuiApplication();

    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    bool painted = false;
    if (format == Format::Png) {
        QImage image(width, height, QImage::Format_RGB32);
        const int dotsPerMeter = static_cast<int>(exportDpi / 0.0254 + 0.5);
        image.setDotsPerMeterX(dotsPerMeter);
        image.setDotsPerMeterY(dotsPerMeter);
        QPainter painter;
        if (painter.begin(&image)) {
            paintOn(painter, width, height, shownAs);
            painter.end();
            painted = image.save(&buffer, "PNG");
        }
    } else if (format == Format::Pdf) {
        QPdfWriter writer(&buffer);
        writer.setResolution(static_cast<int>(exportDpi));
        writer.setPageSize(QPageSize(QSizeF(width * 72.0 / exportDpi, height * 72.0 / exportDpi),
                                     QPageSize::Point, QString(), QPageSize::ExactMatch));
        writer.setPageMargins(QMarginsF(0, 0, 0, 0));
        writer.setCreator(QStringLiteral("Corvane"));
        writer.setTitle(QStringLiteral("Corvane plot"));
        QPainter painter;
        if (painter.begin(&writer)) {
            paintOn(painter, width, height, shownAs);
            painted = painter.end();
        }
    } else {
        QSvgGenerator generator;
        generator.setOutputDevice(&buffer);
        generator.setSize(QSize(width, height));
        generator.setViewBox(QRect(0, 0, width, height));
        generator.setResolution(static_cast<int>(exportDpi));
        generator.setTitle(QStringLiteral("Corvane plot"));
        QPainter painter;
        if (painter.begin(&generator)) {
            paintOn(painter, width, height, shownAs);
            painted = painter.end();
        }
    }
    buffer.close();
    if (!painted || bytes.isEmpty()) {
        error = "the plot could not be painted for " + outputPath;
        return false;
    }
    std::string reason;
    if (!writeWholeFile(outputPath,
                        std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())),
                        reason)) {
        error = "cannot write " + outputPath + ": " + reason;
        return false;
    }
    return true;
}

} // namespace corvane
