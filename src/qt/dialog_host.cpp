#include "qt/dialog_host.h"

#include <algorithm>

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDialog>
#include <QFocusEvent>
#include <QFontMetrics>
#include <QFrame>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScreen>
#include <QSignalBlocker>
#include <QStyle>
#include <cmath>

namespace corvane {

namespace {

QString qText(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

std::string stdText(const QString& text) { return text.toUtf8().toStdString(); }

int dialogUnits(int units, int base, int per) {
    return static_cast<int>(std::lround(static_cast<double>(units) * base / per));
}

// The platform's cancel id, sent by Escape.
constexpr int escapeCommand = 2;

} // namespace

// A black rectangle, filled black, or empty (white in a black frame).
void fillRectangle(QWidget* box, bool filled) {
    QPalette palette = box->palette();
    palette.setColor(QPalette::Window, filled ? Qt::black : Qt::white);
    palette.setColor(QPalette::WindowText, Qt::black);
    box->setPalette(palette);
}

// The QDialog: hands closing and Escape to the procedure, and the focus events of the fields.
class QtDialog::Window final : public QDialog {
public:
    Window(QtDialog& host, QWidget* owner) : QDialog(owner), host_(host) {}

protected:
    void closeEvent(QCloseEvent* event) override {
        event->ignore();
        if (!host_.ended_) host_.send(DialogMessage::Close, 0, Notification::None);
    }
    void reject() override {
        if (!host_.ended_) host_.send(DialogMessage::Command, escapeCommand, Notification::Clicked);
    }
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut) {
            auto reason = static_cast<QFocusEvent*>(event)->reason();
            if (reason != Qt::ActiveWindowFocusReason && reason != Qt::PopupFocusReason)
                host_.focusEvent(static_cast<QLineEdit*>(watched),
                                 event->type() == QEvent::FocusIn);
        }
        // The copy key in a field with nothing selected goes to the procedure.
        if (event->type() == QEvent::KeyPress &&
            static_cast<QKeyEvent*>(event)->matches(QKeySequence::Copy) &&
            !static_cast<QLineEdit*>(watched)->hasSelectedText()) {
            host_.send(DialogMessage::Command, copyCommand, Notification::Clicked);
            return true;
        }
        return QDialog::eventFilter(watched, event);
    }

private:
    QtDialog& host_;
};

QFont dialogFont(const DialogTemplate& dialog) {
    static const bool substituted = [] {
        QFont::insertSubstitution("MS Sans Serif", "Liberation Sans");
        QFont::insertSubstitution("Arial", "Liberation Sans");
        return true;
    }();
    (void)substituted;
    QFont font(QString::fromStdString(dialog.fontFace));
    font.setPointSize(dialog.fontPoints);
    return font;
}

DialogBaseUnits dialogBaseUnits(const QFont& font) {
    QFontMetrics metrics(font);
    int alphabet =
        metrics.horizontalAdvance("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
    return {(alphabet / 26 + 1) / 2, metrics.height()};
}

QRect dialogRect(const DialogBaseUnits& units, int x, int y, int width, int height) {
    return {dialogUnits(x, units.averageWidth, 4), dialogUnits(y, units.height, 8),
            dialogUnits(width, units.averageWidth, 4), dialogUnits(height, units.height, 8)};
}

// [QtDialog]

QtDialog::QtDialog(const DialogTemplate& dialog, DialogProc procedure, QWidget* owner)
    : template_(&dialog), procedure_(std::move(procedure)),
      window_(std::make_unique<Window>(*this, owner)) {
    build();
}

QtDialog::~QtDialog() = default;

QDialog& QtDialog::window() { return *window_; }

void QtDialog::build() {
    placeWindow();
    controls_.reserve(template_->controls.size());
    for (const ControlTemplate& t : template_->controls) controls_.push_back(makeControl(t));
    for (const Control& c : controls_)
        if (c.tmpl->kind == ControlKind::GroupBox) c.widget->lower();
    for (Control& c : controls_) connect(c);
}

// Font, title, caption buttons, size, and the place: centred on the owner (or the screen), or
// at the template's offset from the owner's top-left.
void QtDialog::placeWindow() {
    QDialog& w = *window_;
    const DialogTemplate& d = *template_;
    QFont font = dialogFont(d);
    w.setFont(font);
    units_ = dialogBaseUnits(font);
    w.setWindowTitle(qText(d.title));
    Qt::WindowFlags flags = Qt::Dialog | Qt::CustomizeWindowHint;
    if ((d.style & dsCaption) != 0) flags |= Qt::WindowTitleHint;
    if ((d.style & dsSystemMenu) != 0)
        flags |= Qt::WindowSystemMenuHint | Qt::WindowCloseButtonHint;
    w.setWindowFlags(flags);
    QRect frame = dialogRect(units_, d.x, d.y, d.width, d.height);
    w.setFixedSize(frame.size());
    QWidget* owner = w.parentWidget();
    if ((d.style & dsCentre) != 0) {
        QRect area = owner != nullptr        ? owner->geometry()
                     : w.screen() != nullptr ? w.screen()->availableGeometry()
                                             : QRect();
        w.move(area.center() - frame.center() + frame.topLeft());
    } else {
        w.move(owner != nullptr ? owner->mapToGlobal(frame.topLeft()) : frame.topLeft());
    }
}

// A combo box: a QComboBox when its list drops down, else a field above a list that is always
// shown. rect is where it goes; a dropped list's height is not the widget's.
void QtDialog::makeComboBox(Control& c, QRect& rect) {
    const ControlTemplate& t = *c.tmpl;
    QDialog& w = *window_;
    if ((t.style & (csDropDown | csDropDownList)) != 0) {
        c.combo = new QComboBox(&w);
        c.combo->setEditable((t.style & csDropDown) != 0);
        if (c.combo->isEditable()) {
            c.combo->setInsertPolicy(QComboBox::NoInsert);
            c.field = c.combo->lineEdit();
            if (t.maxLength > 0) c.field->setMaxLength(t.maxLength);
        }
        // The template's height includes the dropped list.
        rect.setHeight(c.combo->sizeHint().height());
        c.widget = c.combo;
        return;
    }
    c.widget = new QWidget(&w);
    c.field = new QLineEdit(c.widget);
    if (t.maxLength > 0) c.field->setMaxLength(t.maxLength);
    c.list = new QListWidget(c.widget);
    c.list->setFocusPolicy(Qt::NoFocus); // the focus stays in the field
    int fieldHeight = c.field->sizeHint().height();
    c.field->setGeometry(0, 0, rect.width(), fieldHeight);
    c.list->setGeometry(0, fieldHeight, rect.width(), rect.height() - fieldHeight);
}

QtDialog::Control QtDialog::makeControl(const ControlTemplate& t) {
    QDialog& w = *window_;
    Control c;
    c.tmpl = &t;
    QRect rect = dialogRect(units_, t.x, t.y, t.width, t.height);
    QString text = qText(t.text);
    switch (t.kind) {
    case ControlKind::Static: {
        auto* label = new QLabel(text, &w);
        label->setWordWrap(true);
        label->setAlignment(Qt::AlignTop |
                            ((t.style & csCentre) != 0 ? Qt::AlignHCenter : Qt::AlignLeft));
        c.widget = label;
        break;
    }
    case ControlKind::Icon: {
        auto* label = new QLabel(&w);
        QIcon icon = QApplication::windowIcon();
        if (icon.isNull()) icon = w.style()->standardIcon(QStyle::SP_MessageBoxInformation);
        label->setPixmap(icon.pixmap(32, 32));
        c.widget = label;
        break;
    }
    case ControlKind::Edit:
        c.field = new QLineEdit(text, &w);
        c.field->setReadOnly((t.style & csReadOnly) != 0);
        c.field->setFrame((t.style & csBorder) != 0);
        if ((t.style & csCentre) != 0) c.field->setAlignment(Qt::AlignCenter);
        if (t.maxLength > 0) c.field->setMaxLength(t.maxLength);
        c.widget = c.field;
        break;
    case ControlKind::Button: {
        auto* button = new QPushButton(text, &w);
        button->setDefault((t.style & csDefault) != 0);
        c.widget = c.button = button;
        break;
    }
    case ControlKind::CheckBox:
        c.widget = c.button = new QCheckBox(text, &w);
        break;
    case ControlKind::GroupBox: {
        auto* group = new QGroupBox(text, &w);
        group->setAttribute(Qt::WA_TransparentForMouseEvents);
        c.widget = group;
        break;
    }
    case ControlKind::ListBox:
        c.widget = c.list = new QListWidget(&w);
        break;
    case ControlKind::ComboBox:
        makeComboBox(c, rect);
        break;
    case ControlKind::BlackRect: {
        auto* box = new QFrame(&w);
        box->setFrameShape(QFrame::Box);
        box->setAutoFillBackground(true);
        c.widget = box;
        fillRectangle(box, true);
        break;
    }
    }
    c.widget->setGeometry(rect);
    c.widget->setObjectName(QString::number(t.id)); // found by its control id
    c.widget->setEnabled((t.style & csDisabled) == 0);
    if ((t.style & csTabStop) == 0 && c.button == nullptr && c.field == nullptr &&
        c.list == nullptr && c.combo == nullptr)
        c.widget->setFocusPolicy(Qt::NoFocus);
    return c;
}

void QtDialog::connect(Control& c) {
    int id = c.tmpl->id;
    if (c.button != nullptr) {
        QObject::connect(c.button, &QAbstractButton::clicked, window_.get(),
                         [this, id] { send(DialogMessage::Command, id, Notification::Clicked); });
    }
    if (c.field != nullptr) {
        c.field->installEventFilter(window_.get());
        QLineEdit* field = c.field;
        QListWidget* list = c.list;
        QComboBox* combo = c.combo;
        QObject::connect(field, &QLineEdit::textEdited, window_.get(), [=, this] {
            // Typed text leaves no row chosen.
            if (list != nullptr) {
                QSignalBlocker blocker(list);
                list->setCurrentRow(-1);
            }
            if (combo != nullptr && combo->currentIndex() != -1) {
                QSignalBlocker blocker(combo);
                QString typed = field->text();
                int cursor = field->cursorPosition();
                combo->setCurrentIndex(-1);
                field->setText(typed);
                field->setCursorPosition(cursor);
            }
            send(DialogMessage::Command, id, Notification::EditChanged);
        });
    }
    if (c.list != nullptr) {
        QListWidget* list = c.list;
        QLineEdit* field = c.field;
        QObject::connect(list, &QListWidget::currentRowChanged, window_.get(), [=, this](int row) {
            if (row < 0) return;
            if (field != nullptr) {
                QSignalBlocker blocker(field);
                field->setText(list->item(row)->text());
            }
            send(DialogMessage::Command, id, Notification::SelectionChanged);
        });
    }
    if (c.combo != nullptr) {
        QObject::connect(c.combo, &QComboBox::activated, window_.get(), [this, id] {
            send(DialogMessage::Command, id, Notification::SelectionChanged);
        });
    }
}

const QtDialog::Control* QtDialog::find(int id) const {
    if (id == -1) return nullptr;
    for (const Control& c : controls_)
        if (c.tmpl->id == id) return &c;
    return nullptr;
}

QWidget* QtDialog::widget(int id) const {
    const Control* c = find(id);
    return c != nullptr ? c->widget : nullptr;
}

void QtDialog::send(DialogMessage message, int id, Notification notification) {
    if (procedure_ && !ended_) procedure_(*this, message, id, notification);
}

void QtDialog::focusEvent(QLineEdit* field, bool gained) {
    if (ownFocusChange_ || ended_) return;
    for (const Control& c : controls_) {
        if (c.field == field) {
            send(DialogMessage::Command, c.tmpl->id,
                 gained ? Notification::EditFocusGained : Notification::EditFocusLost);
            return;
        }
    }
}

bool QtDialog::initialise() {
    send(DialogMessage::Initialise, 0, Notification::None);
    return !ended_;
}

std::intptr_t QtDialog::runModal() {
    modal_ = true;
    if (!initialise()) return result_;
    window_->exec();
    return ended_ ? result_ : -1;
}

bool QtDialog::showModeless() {
    if (!initialise()) return false;
    window_->show();
    return true;
}

void QtDialog::setText(int id, std::string_view text) {
    const Control* c = find(id);
    if (c == nullptr) return;
    QString q = qText(text);
    if (c->field != nullptr) {
        QSignalBlocker blocker(c->field);
        if (c->list != nullptr) {
            QSignalBlocker listBlocker(c->list);
            c->list->setCurrentRow(-1);
        }
        if (c->combo != nullptr) {
            QSignalBlocker comboBlocker(c->combo);
            c->combo->setCurrentIndex(-1);
        }
        // The limit is on what the user types: a longer text of the program's is shown whole.
        if (c->tmpl->maxLength > 0)
            c->field->setMaxLength(std::max(c->tmpl->maxLength, static_cast<int>(q.size())));
        c->field->setText(q);
        wrapWhenLong(*c, q);
    } else if (c->button != nullptr) {
        c->button->setText(q);
    } else if (auto* label = qobject_cast<QLabel*>(c->widget)) {
        label->setText(q);
    } else if (auto* group = qobject_cast<QGroupBox*>(c->widget)) {
        group->setTitle(q);
    }
}

void QtDialog::wrapWhenLong(const Control& c, const QString& text) const {
    QLineEdit* field = c.field;
    if (c.combo != nullptr || c.list != nullptr || !field->isReadOnly() || field->hasFrame() ||
        (field->alignment() & Qt::AlignHCenter) == 0)
        return;
    const bool fits = field->fontMetrics().horizontalAdvance(text) <= field->width() - 6;
    if (c.wrapped == nullptr && fits) return;
    if (c.wrapped == nullptr) {
        c.wrapped = new QLabel(field->parentWidget());
        c.wrapped->setWordWrap(true);
        c.wrapped->setAlignment(Qt::AlignCenter);
        // Room for a second line, half a line above and below the field.
        const int half = field->height() / 2 + 1;
        c.wrapped->setGeometry(field->geometry().adjusted(0, -half, 0, half));
    }
    c.wrapped->setText(text);
    c.wrapped->setVisible(!fits);
    field->setVisible(fits);
}

std::string QtDialog::text(int id) const {
    const Control* c = find(id);
    if (c == nullptr) return {};
    if (c->field != nullptr) return stdText(c->field->text());
    if (c->combo != nullptr) return stdText(c->combo->currentText());
    if (c->button != nullptr) return stdText(c->button->text());
    if (auto* label = qobject_cast<QLabel*>(c->widget)) return stdText(label->text());
    if (auto* group = qobject_cast<QGroupBox*>(c->widget)) return stdText(group->title());
    return {};
}

void QtDialog::setToolTip(int id, std::string_view text) {
    if (const Control* c = find(id)) c->widget->setToolTip(qText(text));
}

void QtDialog::enable(int id, bool enabled) {
    if (const Control* c = find(id)) c->widget->setEnabled(enabled);
}

bool QtDialog::isEnabled(int id) const {
    const Control* c = find(id);
    return c != nullptr && c->widget->isEnabled();
}

void QtDialog::setFocus(int id) {
    const Control* c = find(id);
    if (c == nullptr) return;
    ownFocusChange_ = true;
    (c->field != nullptr ? c->field : c->widget)->setFocus(Qt::OtherFocusReason);
    ownFocusChange_ = false;
}

int QtDialog::focus() const {
    QWidget* focused = window_->focusWidget();
    if (focused == nullptr) return 0;
    for (const Control& c : controls_)
        if (c.widget == focused || c.widget->isAncestorOf(focused)) return c.tmpl->id;
    return 0;
}

void QtDialog::setChecked(int id, bool checked) {
    const Control* c = find(id);
    if (c == nullptr) return;
    if (c->tmpl->kind == ControlKind::CheckBox) c->button->setChecked(checked);
    if (c->tmpl->kind == ControlKind::BlackRect) fillRectangle(c->widget, checked);
}

bool QtDialog::isChecked(int id) const {
    const Control* c = find(id);
    if (c != nullptr && c->tmpl->kind == ControlKind::BlackRect)
        return c->widget->palette().color(QPalette::Window) == Qt::black;
    return c != nullptr && c->tmpl->kind == ControlKind::CheckBox && c->button->isChecked();
}

void QtDialog::clearRows(int id) {
    const Control* c = find(id);
    if (c == nullptr) return;
    if (c->list != nullptr) {
        QSignalBlocker blocker(c->list);
        c->list->clear();
    } else if (c->combo != nullptr) {
        QSignalBlocker blocker(c->combo);
        QString typed = c->combo->currentText();
        c->combo->clear();
        if (c->field != nullptr) c->field->setText(typed);
    }
}

int QtDialog::addRow(int id, std::string_view text) {
    const Control* c = find(id);
    if (c == nullptr) return -1;
    if (c->list != nullptr) {
        QSignalBlocker blocker(c->list);
        c->list->addItem(qText(text));
        return c->list->count() - 1;
    }
    if (c->combo != nullptr) {
        QSignalBlocker blocker(c->combo);
        // An editable combo box chooses its first row when it gets one; the field stays.
        int chosen = c->combo->currentIndex();
        QString typed = c->combo->currentText();
        c->combo->addItem(qText(text));
        if (c->combo->currentIndex() != chosen) {
            c->combo->setCurrentIndex(chosen);
            if (c->field != nullptr) c->field->setText(typed);
        }
        return c->combo->count() - 1;
    }
    return -1;
}

int QtDialog::rowCount(int id) const {
    const Control* c = find(id);
    if (c == nullptr) return 0;
    if (c->list != nullptr) return c->list->count();
    return c->combo != nullptr ? c->combo->count() : 0;
}

std::string QtDialog::rowText(int id, int row) const {
    const Control* c = find(id);
    if (c == nullptr || row < 0 || row >= rowCount(id)) return {};
    if (c->list != nullptr) return stdText(c->list->item(row)->text());
    return stdText(c->combo->itemText(row));
}

int QtDialog::selection(int id) const {
    const Control* c = find(id);
    if (c == nullptr) return -1;
    if (c->list != nullptr) return c->list->currentRow();
    return c->combo != nullptr ? c->combo->currentIndex() : -1;
}

void QtDialog::select(int id, int row) {
    const Control* c = find(id);
    if (c == nullptr) return;
    if (row < 0 || row >= rowCount(id)) row = -1;
    if (c->list != nullptr) {
        QSignalBlocker blocker(c->list);
        c->list->setCurrentRow(row);
        if (c->field != nullptr && row >= 0) {
            QSignalBlocker fieldBlocker(c->field);
            c->field->setText(c->list->item(row)->text());
        }
    } else if (c->combo != nullptr) {
        QSignalBlocker blocker(c->combo);
        QString typed = c->combo->currentText();
        c->combo->setCurrentIndex(row);
        if (row < 0 && c->field != nullptr) c->field->setText(typed);
    }
}

void QtDialog::setTimer(int milliseconds) {
    if (milliseconds <= 0) {
        if (timer_) timer_->stop();
        return;
    }
    if (!timer_) {
        timer_ = std::make_unique<QTimer>();
        QObject::connect(timer_.get(), &QTimer::timeout, [this] {
            if (!ended_) send(DialogMessage::Timer, 0, Notification::None);
        });
    }
    timer_->start(milliseconds);
}

void QtDialog::end(std::intptr_t result) {
    if (ended_) return;
    ended_ = true;
    result_ = result;
    if (timer_) timer_->stop();
    if (modal_ && window_->isVisible())
        window_->done(0);
    else
        window_->hide();
}

// [QtDialogPort]

QtDialogPort::~QtDialogPort() = default;

std::intptr_t QtDialogPort::dialogBox(const DialogTemplate& dialog, DialogProc procedure) {
    dropEnded();
    QtDialog running(dialog, std::move(procedure), owner_);
    return running.runModal();
}

Dialog* QtDialogPort::createDialog(const DialogTemplate& dialog, DialogProc procedure) {
    dropEnded();
    auto opening = std::make_unique<QtDialog>(dialog, std::move(procedure), owner_);
    if (!opening->showModeless()) return nullptr;
    modeless_.push_back(std::move(opening));
    return modeless_.back().get();
}

// Ended modeless dialogs go when the next dialog opens: never while their procedure runs.
void QtDialogPort::dropEnded() {
    std::erase_if(modeless_, [](const auto& d) { return d->hasEnded(); });
}

} // namespace corvane
