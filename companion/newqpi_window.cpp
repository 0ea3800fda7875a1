#include "newqpi_window.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QCloseEvent>
#include <QComboBox>
#include <QFileDialog>
#include <QFileInfo>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenuBar>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QShortcut>
#include <QSpinBox>
#include <QStatusBar>
#include <QStyle>
#include <QTabWidget>
#include <QTableWidget>
#include <QVBoxLayout>
#include <algorithm>
#include <memory>

#include "data_preview.h"
#include "fit/input_file.h"
#include "fit/input_writer.h"
#include "import/moment_file.h"
#include "moment_dialog.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "qpname/qpname.h"
#include "text/text.h"

namespace newqpi {

namespace {

// A data file larger than this is not imported: a thousand pairs take some tens of kilobytes.
constexpr std::size_t maxDataFileBytes = std::size_t{16} << 20;
// Problems shown at most; the rest are counted.
constexpr int shownProblems = 200;

QString qs(const std::string& text) { return QString::fromStdString(text); }
std::string text(const QString& text) { return text.trimmed().toStdString(); }

std::string cellText(const QTableWidget* table, int row, int column) {
    const QTableWidgetItem* item = table->item(row, column);
    return item != nullptr ? text(item->text()) : std::string();
}

QTableWidget* makeTable(const QStringList& headers, QWidget* parent) {
    auto* table = new QTableWidget(0, static_cast<int>(headers.size()), parent);
    table->setHorizontalHeaderLabels(headers);
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table->verticalHeader()->setDefaultSectionSize(table->fontMetrics().height() + 8);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setTabKeyNavigation(false); // Tab moves on to the next field, as in the rest
    return table;
}

QLineEdit* numberField(const QString& tip, QWidget* parent) {
    auto* field = new QLineEdit(parent);
    field->setToolTip(tip);
    field->setMaximumWidth(140);
    return field;
}

QString valueHeader(corvane::DataKind kind) { return QString::fromLatin1(observedName(kind)); }

// The layout of the scrolled form. It says it has no height for width, so that the scroll area
// gives the form all the room down to its minimum size; otherwise the height its wrapped note
// would like counts as the least and the form scrolls although it fits.
class FormLayout final : public QHBoxLayout {
public:
    using QHBoxLayout::QHBoxLayout;
    bool hasHeightForWidth() const override { return false; }
};

} // namespace

NewQpiWindow::NewQpiWindow() {
    setWindowTitle(tr("newQPI: New Fitting Input File"));

    // The form scrolls when the screen is too small for it; the problems and the buttons stay
    // in view below it.
    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);
    auto* scroll = new QScrollArea(central);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* form = new QWidget(scroll);
    auto* columns = new FormLayout(form);
    columns->setContentsMargins(0, 0, 0, 0);
    auto* left = new QVBoxLayout;
    left->addWidget(buildProblem());
    left->addWidget(buildParameters());
    auto* siteRow = new QHBoxLayout;
    siteRow->addWidget(buildSites(), 2);
    siteRow->addWidget(buildJValues(), 3);
    left->addLayout(siteRow, 1);
    auto* right = new QVBoxLayout;
    right->addWidget(buildPaths(), 2);
    right->addWidget(buildData(), 3);
    columns->addLayout(left, 1);
    columns->addLayout(right, 1);
    scroll->setWidget(form);
    layout->addWidget(scroll, 1);

    auto* problemsLabel = new QLabel(tr("Problems to fix before saving:"), central);
    problems_ = new QListWidget(central);
    // Five lines, three on a short screen, where the form needs the room more.
    const int problemLines = screen()->availableGeometry().height() < 800 ? 3 : 5;
    problems_->setMaximumHeight(problems_->fontMetrics().height() * problemLines + 8);
    problems_->setToolTip(tr("What keeps the input file from being saved; every change is "
                             "checked at once"));
    problemsLabel->setBuddy(problems_);
    layout->addWidget(problemsLabel);
    layout->addWidget(problems_);

    auto* buttons = new QHBoxLayout;
    auto* openButton = new QPushButton(tr("&Open..."), central);
    openButton->setToolTip(tr("Edit an existing input file (Ctrl+O)"));
    saveButton_ = new QPushButton(tr("&Save..."), central);
    saveButton_->setDefault(true);
    saveButton_->setToolTip(tr("Save the input file and hand it to Corvane (Ctrl+S); possible "
                               "once no problem is listed"));
    auto* cancelButton = new QPushButton(tr("Cancel"), central);
    cancelButton->setToolTip(tr("Close without creating an input file"));
    buttons->addWidget(openButton);
    buttons->addStretch(1);
    buttons->addWidget(saveButton_);
    buttons->addWidget(cancelButton);
    layout->addLayout(buttons);
    setCentralWidget(central);
    connect(openButton, &QPushButton::clicked, this, [this] {
        if (!confirmDiscard()) return;
        const QString path = chooseOpenPath();
        if (!path.isEmpty()) openInputFile(path);
    });
    connect(saveButton_, &QPushButton::clicked, this, &NewQpiWindow::save);
    connect(cancelButton, &QPushButton::clicked, this, &QWidget::close);
    buildMenu();

    chooseSavePath = [this](const QString& suggested) {
        QFileDialog dialog(this, tr("Save the input file"), suggested,
                           tr("Fitting input files (*.qpi)"));
        dialog.setAcceptMode(QFileDialog::AcceptSave);
        dialog.setDefaultSuffix(QStringLiteral("qpi"));
        if (!suggested.isEmpty()) dialog.selectFile(suggested);
        return dialog.exec() == QDialog::Accepted && !dialog.selectedFiles().isEmpty()
                   ? dialog.selectedFiles().first()
                   : QString();
    };
    chooseImportPath = [this] {
        return QFileDialog::getOpenFileName(
            this, tr("Import measured data"), QFileInfo(importedSource_).absolutePath(),
            tr("Data files (*.txt *.csv *.tsv *.dat);;All files (*)"));
    };
    runMomentDialog = [](MomentDialog& dialog) { return dialog.exec() == QDialog::Accepted; };
    chooseOpenPath = [this] {
        return QFileDialog::getOpenFileName(this, tr("Open an input file"), QString(),
                                            tr("Fitting input files (*.qpi);;All files (*)"));
    };

    setForm(ProblemForm{});
    // As large as the form wants, within the screen less room for the window's frame.
    const QRect available = screen()->availableGeometry();
    const int titleBar = style()->pixelMetric(QStyle::PM_TitleBarHeight) + 8;
    resize(std::min(1000, available.width() - 8), std::min(720, available.height() - titleBar));
}

// [SECTION] The fields

QWidget* NewQpiWindow::buildProblem() {
    auto* box = new QGroupBox(tr("Problem"), this);
    auto* form = new QFormLayout(box);
    title_ = new QLineEdit(box);
    title_->setMaxLength(corvane::maxTitleLength);
    title_->setToolTip(tr("A line that names the problem in the report (at most 119 "
                          "characters, no \"!\")"));
    observed_ = new QComboBox(box);
    observed_->addItem(tr("chiT (cm3 K mol-1)"));
    observed_->addItem(tr("chi (cm3 mol-1)"));
    observed_->setToolTip(tr("What the measured values are"));
    unit_ = new QComboBox(box);
    for (const char* name : corvane::energyUnitNames) unit_->addItem(QString::fromLatin1(name));
    unit_->setToolTip(tr("The unit of the J values and zJ, in H = -2 sum J Sa.Sb"));
    precision_ = numberField(tr("Convergence tolerance: the fit stops when an iteration lowers "
                                "the squared deviation by less than this fraction"),
                             box);
    form->addRow(tr("&Title:"), title_);
    form->addRow(tr("O&bserved:"), observed_);
    form->addRow(tr("&Energy unit:"), unit_);
    form->addRow(tr("&Precision:"), precision_);
    connect(title_, &QLineEdit::textChanged, this, &NewQpiWindow::changed);
    connect(precision_, &QLineEdit::textChanged, this, &NewQpiWindow::changed);
    connect(unit_, &QComboBox::currentIndexChanged, this, &NewQpiWindow::changed);
    connect(observed_, &QComboBox::currentIndexChanged, this, [this](int kind) {
        data_->setHorizontalHeaderItem(
            1, new QTableWidgetItem(valueHeader(static_cast<corvane::DataKind>(kind))));
        changed();
    });
    return box;
}

QWidget* NewQpiWindow::buildParameters() {
    auto* box = new QGroupBox(tr("Parameters"), this);
    auto* grid = new QGridLayout(box);
    grid->addWidget(new QLabel(tr("Start"), box), 0, 1);
    grid->addWidget(new QLabel(tr("Step"), box), 0, 2);
    grid->addWidget(new QLabel(tr("Fit"), box), 0, 3);
    const struct {
        ParameterRow* row;
        const char* label;
        const char* meaning;
    } rows[] = {
        {&g_, "&g", "g factor"},
        {&c_, "&C", "Curie constant of a paramagnetic impurity, cm3 K mol-1"},
        {&zJ_, "&zJ", "intermolecular mean field, in the energy unit"},
        {&tip_, "&Xtip", "temperature-independent paramagnetism, cm3 mol-1"},
    };
    int r = 1;
    for (const auto& row : rows) {
        const QString meaning = tr(row.meaning);
        auto* label = new QLabel(tr(row.label), box);
        label->setToolTip(meaning);
        row.row->start = numberField(tr("Starting value of the %1").arg(meaning), box);
        row.row->step =
            numberField(tr("Step of the %1: the size of the fit's first move").arg(meaning), box);
        row.row->fit = new QCheckBox(box);
        row.row->fit->setToolTip(tr("Fit it; when cleared it stays at its starting value "
                                    "(written with step 0)"));
        label->setBuddy(row.row->start);
        grid->addWidget(label, r, 0);
        grid->addWidget(row.row->start, r, 1);
        grid->addWidget(row.row->step, r, 2);
        grid->addWidget(row.row->fit, r, 3);
        ParameterRow* p = row.row;
        connect(p->start, &QLineEdit::textChanged, this, &NewQpiWindow::changed);
        connect(p->step, &QLineEdit::textChanged, this, &NewQpiWindow::changed);
        connect(p->fit, &QCheckBox::toggled, this, [this, p](bool on) {
            p->step->setEnabled(on);
            changed();
        });
        ++r;
    }
    return box;
}

QWidget* NewQpiWindow::buildSites() {
    auto* box = new QGroupBox(tr("Spin sites"), this);
    auto* layout = new QVBoxLayout(box);
    auto* top = new QFormLayout;
    siteCount_ = new QSpinBox(box);
    siteCount_->setRange(0, corvane::maxSites);
    siteCount_->setToolTip(tr("Number of spin sites, up to %1").arg(corvane::maxSites));
    allSites_ = new QComboBox(box);
    allSites_->addItem(tr("each its own"), 0);
    for (int twice = 1; twice <= corvane::maxTwiceSpin; ++twice)
        allSites_->addItem(qs(spinText(twice)), twice);
    allSites_->setToolTip(tr("Gives every site this spin S"));
    top->addRow(tr("&Sites:"), siteCount_);
    top->addRow(tr("S of a&ll:"), allSites_);
    layout->addLayout(top);
    sites_ = makeTable({tr("S")}, box);
    sites_->setToolTip(tr("The spin S of each site (written as 2S)"));
    layout->addWidget(sites_);
    connect(siteCount_, &QSpinBox::valueChanged, this, [this](int count) {
        setSiteCount(count);
        changed();
    });
    connect(allSites_, &QComboBox::activated, this, [this](int index) {
        if (index <= 0) return;
        for (int row = 0; row < sites_->rowCount(); ++row)
            static_cast<QComboBox*>(sites_->cellWidget(row, 0))->setCurrentIndex(index);
        allSites_->setCurrentIndex(0);
    });
    return box;
}

QWidget* NewQpiWindow::buildJValues() {
    auto* box = new QGroupBox(tr("J values"), this);
    auto* layout = new QVBoxLayout(box);
    auto* top = new QFormLayout;
    jCount_ = new QSpinBox(box);
    jCount_->setRange(0, corvane::maxJValues);
    jCount_->setToolTip(tr("Number of distinct exchange constants J1, J2, ..., up to %1").arg(corvane::maxJValues));
    top->addRow(tr("&J values:"), jCount_);
    layout->addLayout(top);
    jValues_ = makeTable({tr("Start"), tr("Step"), tr("Fit")}, box);
    jValues_->setToolTip(tr("Starting value and step of each J, in the energy unit; a J not "
                            "fitted stays at its starting value"));
    layout->addWidget(jValues_);
    connect(jCount_, &QSpinBox::valueChanged, this, [this](int count) {
        setJCount(count);
        changed();
    });
    connect(jValues_, &QTableWidget::itemChanged, this, &NewQpiWindow::changed);
    return box;
}

QWidget* NewQpiWindow::buildPaths() {
    auto* box = new QGroupBox(tr("Exchange paths"), this);
    auto* layout = new QVBoxLayout(box);
    paths_ = makeTable({tr("Site"), tr("Site"), tr("J")}, box);
    paths_->setToolTip(tr("Each path couples two sites with one of the J values (J1, J2, ...)"));
    layout->addWidget(paths_);
    auto* edit = new QHBoxLayout;
    auto* add = new QPushButton(tr("&Add path"), box);
    auto* remove = new QPushButton(tr("&Remove"), box);
    remove->setToolTip(tr("Removes the selected paths"));
    edit->addWidget(add);
    edit->addWidget(remove);
    edit->addStretch(1);
    layout->addLayout(edit);
    auto* shapes = new QHBoxLayout;
    auto* sitesLabel = new QLabel(tr("S&ites:"), box);
    shapeSites_ = new QLineEdit(box);
    shapeSites_->setPlaceholderText(tr("all, or 1-4, or 1 3 5"));
    shapeSites_->setToolTip(tr("The sites, in order, that Ring, Chain and All pairs join"));
    sitesLabel->setBuddy(shapeSites_);
    shapeJ_ = new QSpinBox(box);
    shapeJ_->setRange(1, corvane::maxJValues);
    shapeJ_->setPrefix(QStringLiteral("J"));
    shapeJ_->setToolTip(tr("The J value of the paths that Ring, Chain and All pairs add"));
    shapes->addWidget(sitesLabel);
    shapes->addWidget(shapeSites_, 1);
    shapes->addWidget(shapeJ_);
    const struct {
        const char* label;
        const char* tip;
        PathShape shape;
    } helpers[] = {
        {"Rin&g", "Joins each site to the next and the last to the first", PathShape::Ring},
        {"C&hain", "Joins each site to the next", PathShape::Chain},
        {"All &pairs", "Joins every two of the sites", PathShape::AllPairs},
    };
    for (const auto& helper : helpers) {
        auto* button = new QPushButton(tr(helper.label), box);
        button->setToolTip(tr(helper.tip));
        shapes->addWidget(button);
        const PathShape shape = helper.shape;
        connect(button, &QPushButton::clicked, this, [this, shape] { addShape(shape); });
    }
    layout->addLayout(shapes);
    connect(add, &QPushButton::clicked, this, [this] {
        std::vector<PathText> paths = form().paths;
        paths.push_back({"", "", "J1"});
        setPaths(paths);
        paths_->setCurrentCell(paths_->rowCount() - 1, 0);
        paths_->editItem(paths_->item(paths_->rowCount() - 1, 0));
        changed();
    });
    connect(remove, &QPushButton::clicked, this, [this] { removeSelectedRows(paths_); });
    auto* del = new QShortcut(QKeySequence::Delete, paths_, nullptr, nullptr,
                              Qt::WidgetWithChildrenShortcut);
    connect(del, &QShortcut::activated, this, [this] { removeSelectedRows(paths_); });
    connect(paths_, &QTableWidget::itemChanged, this, &NewQpiWindow::changed);
    return box;
}

QWidget* NewQpiWindow::buildData() {
    auto* box = new QGroupBox(tr("Measured data"), this);
    auto* layout = new QVBoxLayout(box);
    auto* top = new QHBoxLayout;
    auto* import = new QPushButton(tr("I&mport..."), box);
    import->setToolTip(tr("Reads T and the value from a text or CSV file (Ctrl+I)"));
    auto* paste = new QPushButton(tr("Pas&te"), box);
    paste->setToolTip(tr("Takes T and the value from the clipboard, as copied from a "
                         "spreadsheet (Ctrl+Shift+V)"));
    auto* magnetometer = new QPushButton(tr("Mag&netometer..."), box);
    magnetometer->setToolTip(tr("Reads a magnetometer's file (MPMS3 .dat, or columns of T, H and "
                                "the moment) and converts its moments to chi, chiT or the "
                                "magnetization (Ctrl+M)"));
    auto* remove = new QPushButton(tr("Remo&ve"), box);
    remove->setToolTip(tr("Removes the selected rows of the table shown"));
    valueColumn_ = new QSpinBox(box);
    valueColumn_->setRange(2, 99);
    valueColumn_->setToolTip(tr("The column of the file that holds the value (T is column 1)"));
    auto* columnLabel = new QLabel(tr("Val&ue column:"), box);
    columnLabel->setBuddy(valueColumn_);
    top->addWidget(import);
    top->addWidget(paste);
    top->addWidget(magnetometer);
    top->addWidget(remove);
    top->addStretch(1);
    layout->addLayout(top);
    // The chi or chiT pairs with their field, and the magnetization points, each in a tab of
    // its own with its table and preview.
    dataTabs_ = new QTabWidget(box);
    auto* pairsTab = new QWidget(dataTabs_);
    auto* pairsLayout = new QVBoxLayout(pairsTab);
    auto* fieldRow = new QHBoxLayout;
    field_ = numberField(tr("The field at which the pairs were measured, in tesla; 0 for the "
                            "zero-field limit"),
                         pairsTab);
    auto* fieldLabel = new QLabel(tr("Fiel&d (T):"), pairsTab);
    fieldLabel->setBuddy(field_);
    fieldRow->addWidget(fieldLabel);
    fieldRow->addWidget(field_);
    fieldRow->addStretch(1);
    fieldRow->addWidget(columnLabel);
    fieldRow->addWidget(valueColumn_);
    pairsLayout->addLayout(fieldRow);
    auto* body = new QHBoxLayout;
    data_ = makeTable({tr("T (K)"), valueHeader(corvane::DataKind::ChiT)}, pairsTab);
    data_->setToolTip(tr("The measured pairs, up to %1; a value can be corrected in place").arg(corvane::maxPairs));
    preview_ = new DataPreview(pairsTab);
    body->addWidget(data_, 1);
    body->addWidget(preview_, 1);
    pairsLayout->addLayout(body, 1);
    dataTabs_->addTab(pairsTab, tr("chi or chiT against T"));
    auto* magnetTab = new QWidget(dataTabs_);
    auto* magnetLayout = new QHBoxLayout(magnetTab);
    magnet_ = makeTable({tr("T (K)"), tr("H (T)"), tr("M (N muB)")}, magnetTab);
    magnet_->setToolTip(tr("The magnetization points, up to %1, each at its temperature and "
                           "field; a value can be corrected in place")
                            .arg(corvane::maxMagnetPoints));
    magnetPreview_ = new DataPreview(magnetTab);
    magnetPreview_->setToolTip(tr("The magnetization points, M against H"));
    magnetLayout->addWidget(magnet_, 1);
    magnetLayout->addWidget(magnetPreview_, 1);
    dataTabs_->addTab(magnetTab, tr("M against H"));
    layout->addWidget(dataTabs_, 1);
    dataNote_ = new QLabel(tr("Import a file or paste from a spreadsheet: T in the first "
                              "column."),
                           box);
    dataNote_->setWordWrap(true);
    layout->addWidget(dataNote_);
    connect(import, &QPushButton::clicked, this, [this] {
        const QString path = chooseImportPath();
        if (!path.isEmpty()) importFile(path);
    });
    connect(paste, &QPushButton::clicked, this, &NewQpiWindow::pasteData);
    connect(magnetometer, &QPushButton::clicked, this, [this] {
        const QString path = chooseImportPath();
        if (!path.isEmpty()) importMomentFile(path);
    });
    connect(remove, &QPushButton::clicked, this,
            [this] { removeSelectedRows(dataTabs_->currentIndex() == 0 ? data_ : magnet_); });
    // In the table, Delete removes the selected pairs and Ctrl+V pastes a whole data set.
    auto* del = new QShortcut(QKeySequence::Delete, data_, nullptr, nullptr,
                              Qt::WidgetWithChildrenShortcut);
    connect(del, &QShortcut::activated, this, [this] { removeSelectedRows(data_); });
    auto* delPoints = new QShortcut(QKeySequence::Delete, magnet_, nullptr, nullptr,
                                    Qt::WidgetWithChildrenShortcut);
    connect(delPoints, &QShortcut::activated, this, [this] { removeSelectedRows(magnet_); });
    auto* pasteKey =
        new QShortcut(QKeySequence::Paste, data_, nullptr, nullptr, Qt::WidgetWithChildrenShortcut);
    connect(pasteKey, &QShortcut::activated, this, &NewQpiWindow::pasteData);
    connect(valueColumn_, &QSpinBox::valueChanged, this, &NewQpiWindow::reimport);
    connect(data_, &QTableWidget::itemChanged, this, &NewQpiWindow::changed);
    connect(magnet_, &QTableWidget::itemChanged, this, &NewQpiWindow::changed);
    connect(field_, &QLineEdit::textChanged, this, &NewQpiWindow::changed);
    return box;
}

void NewQpiWindow::buildMenu() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    const auto add = [this, file](const QString& name, const QKeySequence& keys, auto slot) {
        QAction* action = file->addAction(name);
        action->setShortcut(keys);
        connect(action, &QAction::triggered, this, slot);
        return action;
    };
    add(tr("&Open..."), QKeySequence::Open, [this] {
        if (!confirmDiscard()) return;
        const QString path = chooseOpenPath();
        if (!path.isEmpty()) openInputFile(path);
    });
    add(tr("&Import Data..."), QKeySequence(tr("Ctrl+I")), [this] {
        const QString path = chooseImportPath();
        if (!path.isEmpty()) importFile(path);
    });
    add(tr("Import &Magnetometer File..."), QKeySequence(tr("Ctrl+M")), [this] {
        const QString path = chooseImportPath();
        if (!path.isEmpty()) importMomentFile(path);
    });
    add(tr("&Paste Data"), QKeySequence(tr("Ctrl+Shift+V")), [this] { pasteData(); });
    file->addSeparator();
    saveAction_ = add(tr("&Save..."), QKeySequence::Save, [this] { save(); });
    add(tr("&Cancel"), QKeySequence::Quit, [this] { close(); });
}

// [SECTION] Filling the fields

void NewQpiWindow::setForm(const ProblemForm& form) {
    filling_ = true;
    title_->setText(qs(form.title));
    observed_->setCurrentIndex(static_cast<int>(form.dataKind));
    unit_->setCurrentIndex(static_cast<int>(form.energyUnit));
    precision_->setText(qs(form.precision));
    const std::pair<ParameterRow*, const ParameterText*> rows[] = {
        {&g_, &form.g}, {&c_, &form.c}, {&zJ_, &form.zJ}, {&tip_, &form.tip}};
    for (const auto& [row, p] : rows) {
        row->start->setText(qs(p->start));
        row->step->setText(qs(p->step));
        row->fit->setChecked(p->fit);
        row->step->setEnabled(p->fit);
    }
    const int sites = static_cast<int>(std::min<std::size_t>(form.spins.size(), corvane::maxSites));
    siteCount_->setValue(sites);
    setSiteCount(sites);
    for (int row = 0; row < sites; ++row) {
        auto* spin = static_cast<QComboBox*>(sites_->cellWidget(row, 0));
        spin->setCurrentIndex(
            std::max(0, spin->findData(form.spins[static_cast<std::size_t>(row)])));
    }
    const int jCount =
        static_cast<int>(std::min<std::size_t>(form.jValues.size(), corvane::maxJValues));
    jCount_->setValue(jCount);
    setJCount(jCount);
    for (int row = 0; row < jCount; ++row) {
        const ParameterText& j = form.jValues[static_cast<std::size_t>(row)];
        jValues_->item(row, 0)->setText(qs(j.start));
        jValues_->item(row, 1)->setText(qs(j.step));
        jValues_->item(row, 2)->setCheckState(j.fit ? Qt::Checked : Qt::Unchecked);
    }
    setPaths(form.paths);
    setPairs(form.pairs);
    field_->setText(qs(form.field));
    setMagnetPoints(form.magnetPoints);
    weighting_ = form.weighting;
    magnetWeight_ = form.magnetWeight;
    filling_ = false;
    check();
}

void NewQpiWindow::setSiteCount(int count) {
    const bool wasFilling = filling_;
    filling_ = true;
    const int before = sites_->rowCount();
    sites_->setRowCount(count);
    for (int row = before; row < count; ++row) {
        auto* spin = new QComboBox(sites_);
        spin->addItem(tr("choose S"), 0);
        for (int twice = 1; twice <= corvane::maxTwiceSpin; ++twice)
            spin->addItem(qs(spinText(twice)), twice);
        spin->setToolTip(tr("The spin S of site %1").arg(row + 1));
        sites_->setVerticalHeaderItem(row, new QTableWidgetItem(tr("Site %1").arg(row + 1)));
        sites_->setCellWidget(row, 0, spin);
        connect(spin, &QComboBox::currentIndexChanged, this, &NewQpiWindow::changed);
    }
    filling_ = wasFilling;
}

void NewQpiWindow::setJCount(int count) {
    const bool wasFilling = filling_;
    filling_ = true;
    const int before = jValues_->rowCount();
    jValues_->setRowCount(count);
    for (int row = before; row < count; ++row) {
        jValues_->setVerticalHeaderItem(row, new QTableWidgetItem(tr("J%1").arg(row + 1)));
        jValues_->setItem(row, 0, new QTableWidgetItem(qs(newJValue.start)));
        jValues_->setItem(row, 1, new QTableWidgetItem(qs(newJValue.step)));
        auto* fit = new QTableWidgetItem;
        fit->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
        fit->setCheckState(newJValue.fit ? Qt::Checked : Qt::Unchecked);
        jValues_->setItem(row, 2, fit);
    }
    filling_ = wasFilling;
}

void NewQpiWindow::setPaths(const std::vector<PathText>& paths) {
    const bool wasFilling = filling_;
    filling_ = true;
    paths_->setRowCount(static_cast<int>(paths.size()));
    int row = 0;
    for (const PathText& path : paths) {
        paths_->setItem(row, 0, new QTableWidgetItem(qs(path.siteA)));
        paths_->setItem(row, 1, new QTableWidgetItem(qs(path.siteB)));
        paths_->setItem(row, 2, new QTableWidgetItem(qs(path.j)));
        ++row;
    }
    filling_ = wasFilling;
}

void NewQpiWindow::setMagnetPoints(const std::vector<MagnetText>& points) {
    const bool wasFilling = filling_;
    filling_ = true;
    magnet_->setRowCount(0);
    magnet_->setRowCount(static_cast<int>(points.size()));
    int row = 0;
    for (const MagnetText& point : points) {
        magnet_->setItem(row, 0, new QTableWidgetItem(qs(point.temperature)));
        magnet_->setItem(row, 1, new QTableWidgetItem(qs(point.field)));
        magnet_->setItem(row, 2, new QTableWidgetItem(qs(point.value)));
        ++row;
    }
    filling_ = wasFilling;
}

void NewQpiWindow::setPairs(const std::vector<PairText>& pairs) {
    const bool wasFilling = filling_;
    filling_ = true;
    data_->setRowCount(0);
    data_->setRowCount(static_cast<int>(pairs.size()));
    int row = 0;
    for (const PairText& pair : pairs) {
        data_->setItem(row, 0, new QTableWidgetItem(qs(pair.temperature)));
        data_->setItem(row, 1, new QTableWidgetItem(qs(pair.value)));
        ++row;
    }
    filling_ = wasFilling;
}

ProblemForm NewQpiWindow::form() const {
    ProblemForm form;
    form.title = title_->text().toStdString(); // as typed: blanks are part of a title
    form.dataKind = static_cast<corvane::DataKind>(observed_->currentIndex());
    form.energyUnit = static_cast<corvane::EnergyUnit>(unit_->currentIndex());
    form.precision = text(precision_->text());
    const std::pair<const ParameterRow*, ParameterText*> rows[] = {
        {&g_, &form.g}, {&c_, &form.c}, {&zJ_, &form.zJ}, {&tip_, &form.tip}};
    for (const auto& [row, p] : rows)
        *p = {text(row->start->text()), text(row->step->text()), row->fit->isChecked()};
    for (int row = 0; row < sites_->rowCount(); ++row)
        form.spins.push_back(
            static_cast<QComboBox*>(sites_->cellWidget(row, 0))->currentData().toInt());
    for (int row = 0; row < jValues_->rowCount(); ++row)
        form.jValues.push_back({cellText(jValues_, row, 0), cellText(jValues_, row, 1),
                                jValues_->item(row, 2)->checkState() == Qt::Checked});
    for (int row = 0; row < paths_->rowCount(); ++row)
        form.paths.push_back(
            {cellText(paths_, row, 0), cellText(paths_, row, 1), cellText(paths_, row, 2)});
    for (int row = 0; row < data_->rowCount(); ++row)
        form.pairs.push_back({cellText(data_, row, 0), cellText(data_, row, 1)});
    form.field = text(field_->text());
    for (int row = 0; row < magnet_->rowCount(); ++row)
        form.magnetPoints.push_back(
            {cellText(magnet_, row, 0), cellText(magnet_, row, 1), cellText(magnet_, row, 2)});
    form.weighting = weighting_;
    form.magnetWeight = magnetWeight_;
    return form;
}

// [SECTION] Checks

void NewQpiWindow::changed() {
    if (filling_) return;
    edited_ = true;
    check();
}

void NewQpiWindow::check() {
    const ProblemForm now = form();
    const std::vector<std::string> found = formProblems(now);
    problems_->clear();
    int shown = 0;
    for (const std::string& problem : found) {
        if (++shown > shownProblems) {
            problems_->addItem(tr("... and %1 more.").arg(found.size() - shownProblems));
            break;
        }
        problems_->addItem(qs(problem));
    }
    if (found.empty()) problems_->addItem(tr("None: the input file can be saved."));
    saveButton_->setEnabled(found.empty());
    saveAction_->setEnabled(found.empty());
    QVector<QPointF> points;
    for (const PairText& pair : now.pairs) {
        double t = 0, v = 0;
        if (corvane::parseReal(pair.temperature, t) && corvane::parseReal(pair.value, v))
            points.push_back({t, v});
    }
    preview_->setPairs(points, QString::fromLatin1(observedName(now.dataKind)));
    QVector<QPointF> magnet;
    for (const MagnetText& point : now.magnetPoints) {
        double h = 0, m = 0;
        if (corvane::parseReal(point.field, h) && corvane::parseReal(point.value, m))
            magnet.push_back({h, m});
    }
    magnetPreview_->setPairs(magnet, tr("M (N muB)"), tr("H (T)"));
}

QStringList NewQpiWindow::problems() const {
    QStringList list;
    for (const std::string& problem : formProblems(form())) list << qs(problem);
    return list;
}

// [SECTION] Paths and data

void NewQpiWindow::addShape(PathShape shape) {
    ProblemForm now = form();
    std::vector<int> sites;
    std::string error;
    if (!parseSiteList(text(shapeSites_->text()), static_cast<int>(now.spins.size()), sites,
                       error)) {
        corvane::messageBox(error, "Exchange paths", corvane::mbOk | corvane::mbIconExclamation);
        shapeSites_->setFocus();
        return;
    }
    const int added = addPaths(now, shape, sites, shapeJ_->value());
    setPaths(now.paths);
    statusBar()->showMessage(added == 1 ? tr("1 path added.")
                                        : tr("%1 paths added; a pair joined already is not added "
                                             "again.")
                                              .arg(added),
                             5000);
    changed();
}

bool NewQpiWindow::importText(const std::string& contents, const QString& source) {
    ImportedData imported;
    std::string error;
    if (!importData(contents, valueColumn_->value(), imported, error)) {
        corvane::messageBox(source.toStdString() + ": " + error, "Import",
                            corvane::mbOk | corvane::mbIconExclamation);
        return false;
    }
    importedText_ = contents;
    importedSource_ = source;
    setPairs(imported.pairs);
    dataNote_->setText(tr("%1 pairs from %2, with the value from column %3 of %4; %5 other "
                          "lines skipped (headers, comments, blank lines).")
                           .arg(imported.pairs.size())
                           .arg(QFileInfo(source).fileName())
                           .arg(valueColumn_->value())
                           .arg(imported.columns)
                           .arg(imported.skippedLines));
    changed();
    return true;
}

bool NewQpiWindow::importFile(const QString& path) {
    std::string contents, error;
    if (!corvane::readWholeFile(path.toStdString(), contents, error, maxDataFileBytes)) {
        corvane::messageBox("Cannot read " + path.toStdString() + ": " + error, "Import",
                            corvane::mbOk | corvane::mbIconExclamation);
        return false;
    }
    // An instrument's file holds moments, not values: the magnetometer import converts them.
    if (corvane::isMpms3Text(contents)) return importMomentFile(path);
    if (!importText(contents, path)) return false;
    importedFrom(path, "");
    return true;
}

void NewQpiWindow::importedFrom(const QString& path, const std::string& material) {
    const QFileInfo file(path);
    if (suggestedPath_.isEmpty())
        suggestedPath_ = file.absolutePath() + QLatin1Char('/') + file.completeBaseName() +
                         QStringLiteral(".qpi");
    if (title_->text().isEmpty())
        title_->setText(material.empty() ? file.completeBaseName() : qs(material));
}

bool NewQpiWindow::importMomentFile(const QString& path) {
    corvane::MomentFile file;
    std::string error;
    if (!corvane::readMomentFile(path.toStdString(), file, error)) {
        corvane::messageBox(error, "Import", corvane::mbOk | corvane::mbIconExclamation);
        return false;
    }
    const std::string material = file.material;
    MomentDialog dialog(std::move(file), static_cast<corvane::DataKind>(observed_->currentIndex()),
                        this);
    if (!runMomentDialog(dialog) || !dialog.problems().empty()) return false;
    const MomentChoice choice = dialog.choice();
    const ConvertedMoments& converted = dialog.converted();
    // A set not chosen leaves what the form holds of it as it was.
    if (choice.chiSet) {
        observed_->setCurrentIndex(static_cast<int>(choice.kind));
        setPairs(converted.pairs);
        field_->setText(qs(converted.field));
        importedText_.clear(); // the value column no longer applies
    }
    if (choice.magnetSet) setMagnetPoints(converted.points);
    dataTabs_->setCurrentIndex(choice.chiSet ? 0 : 1);
    dataNote_->setText(qs(converted.summary));
    importedSource_ = path;
    importedFrom(path, material);
    changed();
    return true;
}

void NewQpiWindow::removeSelectedRows(QTableWidget* table) {
    std::vector<int> gone;
    for (const QModelIndex& index : table->selectionModel()->selectedRows())
        gone.push_back(index.row());
    std::sort(gone.rbegin(), gone.rend());
    for (int row : gone) table->removeRow(row);
    changed();
}

void NewQpiWindow::pasteData() {
    const QString pasted = QGuiApplication::clipboard()->text();
    importText(pasted.toStdString(), tr("the clipboard"));
}

void NewQpiWindow::reimport() {
    if (!importedText_.empty()) importText(importedText_, importedSource_);
}

// [SECTION] Open, save, close

bool NewQpiWindow::openInputFile(const QString& path) {
    std::string contents, error;
    if (!corvane::readWholeFile(path.toStdString(), contents, error, corvane::maxInputFileBytes)) {
        corvane::showError("Cannot read " + path.toStdString() + ": " + error);
        return false;
    }
    auto doc = std::make_unique<corvane::FitDocument>();
    if (!corvane::readInputText(contents, path.toStdString(), *doc)) return false;
    setForm(formOf(*doc));
    suggestedPath_ = QFileInfo(path).absoluteFilePath();
    importedText_.clear();
    dataNote_->setText(doc->magnetCount == 0
                           ? tr("%1 pairs from %2.").arg(doc->pairCount).arg(QFileInfo(path).fileName())
                           : tr("%1 pairs and %2 magnetization points from %3.")
                                 .arg(doc->pairCount)
                                 .arg(doc->magnetCount)
                                 .arg(QFileInfo(path).fileName()));
    setWindowTitle(tr("newQPI: %1").arg(QFileInfo(path).fileName()));
    edited_ = false;
    return true;
}

void NewQpiWindow::save() {
    const std::vector<std::string> found = formProblems(form());
    check();
    if (!found.empty()) {
        corvane::messageBeep(0);
        statusBar()->showMessage(tr("Fix the problems listed first."), 5000);
        problems_->setFocus();
        return;
    }
    const QString chosen = chooseSavePath(suggestedPath_);
    if (chosen.isEmpty()) return;
    const std::string path = QFileInfo(chosen).absoluteFilePath().toStdString();
    auto doc = std::make_unique<corvane::FitDocument>();
    fillDocument(form(), *doc);
    std::string error;
    if (!corvane::writeInputFile(path, *doc, error)) {
        corvane::showError("The input file could not be saved as " + path + ": " + error);
        return;
    }
    if (!corvane::set_qpname(qpnameToken_, path, error))
        corvane::messageBox("The input file is saved as " + path +
                                ", but its name could not be handed to Corvane (" + error +
                                "). Open it there with File > Open.",
                            "newQPI", corvane::mbOk | corvane::mbIconExclamation);
    done_ = true;
    close();
}

bool NewQpiWindow::confirmDiscard() {
    if (!edited_) return true;
    return corvane::messageBox("Discard the input file begun here?", "newQPI",
                               corvane::mbYesNo | corvane::mbIconQuestion) == corvane::idYes;
}

void NewQpiWindow::closeEvent(QCloseEvent* event) {
    if (done_ || confirmDiscard()) {
        done_ = true;
        event->accept();
    } else {
        event->ignore();
    }
}

} // namespace newqpi
