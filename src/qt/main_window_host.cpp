#include "qt/main_window_host.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QCloseEvent>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileInfo>
#include <QIcon>
#include <QImage>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QScreen>
#include <QScrollBar>
#include <QShortcut>
#include <QSvgRenderer>
#include <QTimer>
#include <QUrl>

#include "platform/ports.h"
#include "plot/plot_settings.h"
#include "qt/painter_surface.h"
#include "qt/platform_services.h"
#include "qt/plot_export.h"
#include "resources/resources.h"

// The resources are compiled into this static library; their registration is called for.
static void registerResources() { Q_INIT_RESOURCE(corvane); }

namespace corvane {

namespace {

QString qText(const std::string& text) { return QString::fromStdString(text); }

// A file the window loads when it is dropped: an input file or a report.
QString loadablePath(const QMimeData* data) {
    if (data == nullptr || !data->hasUrls()) return {};
    const QList<QUrl> urls = data->urls();
    if (urls.size() != 1 || !urls.front().isLocalFile()) return {};
    const QString path = urls.front().toLocalFile();
    const QString suffix = QFileInfo(path).suffix().toLower();
    return suffix == "qpi" || suffix == "qpo" ? path : QString();
}

} // namespace

// The central widget: the plot, painted by the window procedure on a white background.
class PlotView final : public QWidget {
public:
    explicit PlotView(MainWindowHost& host) : QWidget(&host), host_(host) {
        setAttribute(Qt::WA_OpaquePaintEvent);
        setMouseTracking(true);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        {
            QPainter painter(this);
            painter.fillRect(rect(), Qt::white);
            PainterSurface surface(painter, host_.screen_.metrics, host_.screen_.dotsPerInch);
            MainWndProc({.message = WindowMessage::Paint, .surface = &surface});
        }
        if (host_.afterPaint) host_.afterPaint();
    }
    void mousePressEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton)
            send(WindowMessage::LeftButtonDown, event);
        else if (event->button() == Qt::RightButton)
            send(WindowMessage::RightButtonDown, event);
    }
    void mouseMoveEvent(QMouseEvent* event) override { send(WindowMessage::MouseMove, event); }
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton) send(WindowMessage::LeftButtonUp, event);
    }

private:
    static void send(WindowMessage message, const QMouseEvent* event) {
        const QPoint at = event->position().toPoint();
        MainWndProc({.message = message, .x = at.x(), .y = at.y()});
    }
    MainWindowHost& host_;
};

// The rubber band of a selection: a widget over the band's outline that inverts the pixels of
// the plot beneath it, as an inverting pen would, so the plot is never painted again for it.
class BandOverlay final : public QWidget {
public:
    explicit BandOverlay(QWidget* parent) : QWidget(parent) {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        setAttribute(Qt::WA_NoSystemBackground);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setCompositionMode(QPainter::RasterOp_NotDestination);
        painter.setPen(QPen(Qt::black, 1));
        painter.drawRect(0, 0, width() - 1, height() - 1);
    }
};

// The cover page over the centre of the empty window; a left click on it closes it for good.
class CoverPage final : public QWidget {
public:
    CoverPage(QWidget& parent, MainWindowHost& host)
        : QWidget(&parent), host_(host), picture_(QStringLiteral(":/corvane/cover.svg")) {
        setAttribute(Qt::WA_OpaquePaintEvent);
        resize(coverWidth, coverHeight);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(rect(), QColor(192, 192, 192));
        if (!picture_.isValid()) return;
        QSizeF size = picture_.defaultSize();
        size.scale(QSizeF(width(), height()), Qt::KeepAspectRatio);
        const QRectF target((width() - size.width()) / 2, (height() - size.height()) / 2,
                            size.width(), size.height());
        picture_.render(&painter, target);
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (event->button() == Qt::LeftButton) host_.closeCover();
    }

private:
    MainWindowHost& host_;
    QSvgRenderer picture_;
};

// The engine's log, read-only, reloaded twice a second while it changes and kept scrolled to
// its end.
class LogWindow final : public QPlainTextEdit {
public:
    explicit LogWindow(QWidget& owner) : QPlainTextEdit(&owner) {
        setWindowFlag(Qt::Window);
        setAttribute(Qt::WA_DeleteOnClose);
        setReadOnly(true);
        setLineWrapMode(QPlainTextEdit::NoWrap);
        setFont(QFont(QStringLiteral("Monospace")));
        resize(640, 400);
        connect(&timer_, &QTimer::timeout, this, [this] { reload(); });
        timer_.start(500);
    }

    void follow(const QString& path) {
        path_ = path;
        shown_.clear();
        setWindowTitle(QStringLiteral("Corvane: Log File - ") + path);
        reload();
    }

private:
    void reload() {
        QFile file(path_);
        QString text;
        if (file.open(QIODevice::ReadOnly | QIODevice::Text))
            text = QString::fromLocal8Bit(file.readAll());
        else
            text = QStringLiteral("(no log yet: ") + path_ + QStringLiteral(")");
        if (text == shown_) return;
        shown_ = text;
        setPlainText(text);
        verticalScrollBar()->setValue(verticalScrollBar()->maximum());
    }

    QString path_;
    QString shown_;
    QTimer timer_;
};

ScreenMeasure measureScreen(const QScreen& screen) {
    const QSize size = screen.size();
    const double dpiX = screen.logicalDotsPerInchX() > 0 ? screen.logicalDotsPerInchX() : 96;
    const double dpiY = screen.logicalDotsPerInchY() > 0 ? screen.logicalDotsPerInchY() : 96;
    return {{size.width(), size.height(), size.width() * 25.4 / dpiX, size.height() * 25.4 / dpiY},
            dpiY};
}

MainWindowHost::MainWindowHost() : plot_(new PlotView(*this)) {
    registerResources();
    plotServices_ = std::make_unique<WidgetWindow>(*plot_);
    setWindowTitle(QString::fromUtf8(mainWindowTitle));
    setWindowIcon(QIcon(QStringLiteral(":/corvane/corvane.svg")));
    setCentralWidget(plot_);
    setAcceptDrops(true);
    // Ctrl+C: the shown calculations' results to the clipboard.
    auto* copy = new QShortcut(QKeySequence::Copy, this);
    QObject::connect(copy, &QShortcut::activated, this,
                     [] { MainWndProc({.message = WindowMessage::Command, .command = idmCopy}); });
}

MainWindowHost::~MainWindowHost() {
    if (&corvane::window() == this) {
        shell.menu.setListener({});
        setWindowHost(nullptr);
    }
}

void MainWindowHost::start(const ScreenMeasure& screen) {
    screen_ = screen;
    {
        QImage image(std::max(1, screen.metrics.horizontalResolution),
                     std::max(1, screen.metrics.verticalResolution), QImage::Format_RGB32);
        QPainter painter(&image);
        PainterSurface surface(painter, screen.metrics, screen.dotsPerInch);
        startUp(surface);
    }
    buildMenuBar();
    MainWndProc({.message = WindowMessage::Create});
    move(0, 0);
    resize(plotLayout.deviceWidth, plotLayout.deviceHeight);
    if (cover_ == nullptr) cover_ = new CoverPage(*plot_, *this);
    const CoverPosition at = coverPosition();
    cover_->move(at.x, at.y);
    cover_->show();
}

QWidget& MainWindowHost::plotWidget() { return *plot_; }

QWidget* MainWindowHost::coverPage() const { return cover_; }

QWidget* MainWindowHost::logWindow() const { return log_; }

QAction* MainWindowHost::action(int id) const {
    const auto found = commands_.find(id);
    return found == commands_.end() ? nullptr : found->second;
}

void MainWindowHost::buildMenuBar() {
    menuBar()->clear();
    actions_.clear();
    commands_.clear();
    addItems(*menuBar(), shell.menu.bar());
    const struct {
        int id;
        QKeySequence keys;
    } shortcuts[] = {{idmOpen, QKeySequence(Qt::CTRL | Qt::Key_O)},
                     {idmPlot, QKeySequence(Qt::CTRL | Qt::Key_L)},
                     {idmPrint, QKeySequence(Qt::CTRL | Qt::Key_P)},
                     {idmExit, QKeySequence(Qt::CTRL | Qt::Key_Q)}};
    for (const auto& shortcut : shortcuts)
        if (QAction* a = action(shortcut.id)) a->setShortcut(shortcut.keys);
    shell.menu.setListener([this](const MenuItem& item) { mirror(item); });
}

void MainWindowHost::addItems(QWidget& menu, const std::vector<MenuItem>& items) {
    for (const MenuItem& item : items) addItem(menu, item);
}

QAction* MainWindowHost::addItem(QWidget& menu, const MenuItem& item) {
    auto* bar = qobject_cast<QMenuBar*>(&menu);
    auto* popup = qobject_cast<QMenu*>(&menu);
    QAction* added = nullptr;
    switch (item.kind) {
    case MenuItem::Kind::Separator:
        if (popup != nullptr) popup->addSeparator();
        return nullptr;
    case MenuItem::Kind::Popup: {
        QMenu* sub =
            bar != nullptr ? bar->addMenu(qText(item.text)) : popup->addMenu(qText(item.text));
        addItems(*sub, item.items);
        added = sub->menuAction();
        break;
    }
    case MenuItem::Kind::Command: {
        added =
            bar != nullptr ? bar->addAction(qText(item.text)) : popup->addAction(qText(item.text));
        const int id = item.id;
        const MenuItem* source = &item;
        connect(added, &QAction::triggered, this, [this, id, source] {
            MainWndProc({.message = WindowMessage::Command, .command = id});
            // A checkable action toggles itself; the menu has the last word.
            mirror(*source);
        });
        commands_.try_emplace(id, added);
        break;
    }
    }
    actions_[&item] = added;
    mirror(item);
    return added;
}

// Checkable only while checked: an item that is never checked shows no empty box.
void MainWindowHost::mirror(const MenuItem& item) {
    const auto found = actions_.find(&item);
    if (found == actions_.end() || found->second == nullptr) return;
    QAction* a = found->second;
    a->setEnabled(item.enabled);
    if (item.checked) {
        a->setCheckable(true);
        a->setChecked(true);
    } else {
        a->setChecked(false);
        a->setCheckable(false);
    }
}

void MainWindowHost::setCursor(CursorShape shape) { plotServices_->setCursor(shape); }

void MainWindowHost::captureMouse() { plotServices_->captureMouse(); }

void MainWindowHost::releaseMouse() { plotServices_->releaseMouse(); }

void MainWindowHost::invalidate(bool erase) { plotServices_->invalidate(erase); }

void MainWindowHost::update() { plotServices_->update(); }

void MainWindowHost::closeCover() {
    if (cover_ == nullptr) return;
    cover_->hide();
    cover_->deleteLater();
    cover_ = nullptr;
}

void MainWindowHost::quit(int exitCode) { QApplication::exit(exitCode); }

int MainWindowHost::clientWidth() const { return plot_->width(); }
int MainWindowHost::clientHeight() const { return plot_->height(); }

bool MainWindowHost::savePlot(const std::string& path, std::string& error) {
    const ShownSurface shown{screen_.metrics, screen_.dotsPerInch};
    return exportPlot(path, clientWidth(), clientHeight(), error, &shown);
}

void MainWindowHost::showBand(int x0, int y0, int x1, int y1) {
    if (band_ == nullptr) band_ = new BandOverlay(plot_);
    band_->setGeometry(QRect(QPoint(x0, y0), QPoint(x1, y1)).normalized());
    band_->show();
}

void MainWindowHost::hideBand() {
    if (band_ != nullptr) band_->hide();
}

void MainWindowHost::showLogFile(const std::string& path) {
    if (log_ == nullptr) log_ = new LogWindow(*this);
    log_->follow(qText(path));
    // In front of the window and of the progress dialog, and usable while that dialog is modal:
    // it belongs to the dialog while the dialog is shown, and comes back to the main window when
    // the dialog goes (see eventFilter), so that it stays open.
    QWidget* owner = QApplication::activeModalWidget();
    if (owner == nullptr) owner = this;
    if (log_->parentWidget() != owner) {
        const bool shown = log_->isVisible();
        const QRect place = log_->geometry();
        log_->setParent(owner, Qt::Window);
        if (shown) log_->setGeometry(place); // where the user left it
        if (owner != this) owner->installEventFilter(this);
    }
    log_->show();
    log_->raise();
    log_->activateWindow();
}

bool MainWindowHost::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::Hide && log_ != nullptr && log_->parentWidget() == watched &&
        watched != this) {
        watched->removeEventFilter(this);
        const bool shown = log_->isVisible();
        const QRect place = log_->geometry();
        log_->setParent(this, Qt::Window);
        log_->setGeometry(place);
        if (shown) log_->show();
    }
    return QMainWindow::eventFilter(watched, event);
}

void MainWindowHost::setTitle(const std::string& title) { setWindowTitle(qText(title)); }

void MainWindowHost::copyText(const std::string& text) {
    QGuiApplication::clipboard()->setText(qText(text));
}

void MainWindowHost::closeEvent(QCloseEvent* event) {
    if (MainWndProc({.message = WindowMessage::Close})) {
        event->ignore();
        return;
    }
    event->accept();
    if (log_ != nullptr) log_->close();
    MainWndProc({.message = WindowMessage::Destroy});
}

void MainWindowHost::dragEnterEvent(QDragEnterEvent* event) {
    if (!loadablePath(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void MainWindowHost::dropEvent(QDropEvent* event) {
    const QString path = loadablePath(event->mimeData());
    if (path.isEmpty()) return;
    event->acceptProposedAction();
    // Loaded once the drop is over: the load may open dialogs.
    QTimer::singleShot(0, this, [path] { openFile(path.toStdString()); });
}

} // namespace corvane
