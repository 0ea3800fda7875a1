#include "moment_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <cmath>

#include "data_preview.h"
#include "text/text.h"

namespace newqpi {

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

// "199.96 Oe (151 rows)".
QString levelText(const corvane::Level& level, const char* unit, int digits) {
    return qs(corvane::formatC("%s %s (%d %s)",
                               corvane::formatC("%.*g", digits, level.value).c_str(), unit,
                               level.rows, level.rows == 1 ? "row" : "rows"));
}

QVector<QPointF> pointsOf(const std::vector<std::pair<std::string, std::string>>& texts) {
    QVector<QPointF> points;
    for (const auto& [x, y] : texts) {
        double a = 0, b = 0;
        if (corvane::parseReal(x, a) && corvane::parseReal(y, b)) points.push_back({a, b});
    }
    return points;
}

} // namespace

MomentDialog::MomentDialog(corvane::MomentFile file, corvane::DataKind kind, QWidget* parent)
    : QDialog(parent), file_(std::move(file)) {
    setWindowTitle(tr("Import a magnetometer file"));
    fields_ = corvane::fieldLevels(file_.rows);
    temperatures_ = corvane::temperatureLevels(file_.rows);
    auto* layout = new QVBoxLayout(this);
    auto* about = new QLabel(qs(fileSummary(file_)), this);
    about->setWordWrap(true);
    layout->addWidget(about);
    auto* top = new QHBoxLayout;
    top->addWidget(buildSample(), 1);
    top->addWidget(buildSets(), 1);
    layout->addLayout(top);
    auto* previews = new QHBoxLayout;
    chiPreview_ = new DataPreview(this);
    chiPreview_->setToolTip(tr("The chi or chiT set as it will be imported, against T"));
    magnetPreview_ = new DataPreview(this);
    magnetPreview_->setToolTip(tr("The magnetization set as it will be imported, against H"));
    previews->addWidget(chiPreview_, 1);
    previews->addWidget(magnetPreview_, 1);
    layout->addLayout(previews, 1);
    summary_ = new QLabel(this);
    summary_->setWordWrap(true);
    problemText_ = new QLabel(this);
    problemText_->setWordWrap(true);
    problemText_->setStyleSheet(QStringLiteral("color: #b00000"));
    layout->addWidget(summary_);
    layout->addWidget(problemText_);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    layout->addWidget(buttons_);
    connect(buttons_, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons_, &QDialogButtonBox::rejected, this, &QDialog::reject);

    // What the file suggests, as the fields show it.
    const MomentChoice suggested = suggestedChoice(file_);
    mass_->setText(qs(suggested.mass));
    molarMass_->setText(qs(suggested.molarMass));
    chiBox_->setChecked(suggested.chiSet);
    kind_->setCurrentIndex(static_cast<int>(kind));
    magnetBox_->setChecked(suggested.magnetSet);
    for (int k = 0; k < temperature_->count(); ++k)
        if (corvane::sameTemperature(temperature_->itemData(k).toDouble(), suggested.temperature))
            temperature_->setCurrentIndex(k);
    for (QLineEdit* edit : {mass_, molarMass_, diamagnetic_})
        connect(edit, &QLineEdit::textChanged, this, &MomentDialog::update);
    for (QComboBox* combo : {field_, kind_, temperature_, branch_})
        connect(combo, &QComboBox::currentIndexChanged, this, &MomentDialog::update);
    for (QGroupBox* box : {chiBox_, magnetBox_})
        connect(box, &QGroupBox::toggled, this, &MomentDialog::update);
    update();
}

QWidget* MomentDialog::buildSample() {
    auto* box = new QGroupBox(tr("Sample"), this);
    auto* grid = new QGridLayout(box);
    mass_ = new QLineEdit(box);
    mass_->setToolTip(tr("The mass of the sample in mg"));
    massSource_ = new QLabel(box);
    molarMass_ = new QLineEdit(box);
    molarMass_->setToolTip(tr("The molar mass of the compound in g mol-1, per formula unit of "
                              "the fit"));
    molarMassSource_ = new QLabel(box);
    diamagnetic_ = new QLineEdit(box);
    diamagnetic_->setPlaceholderText(tr("none"));
    diamagnetic_->setToolTip(tr("The molar diamagnetic susceptibility chi_dia in cm3 mol-1 "
                                "(negative), subtracted from chi and from M; blank for none"));
    const struct {
        const char* label;
        QLineEdit* field;
        QLabel* source;
    } rows[] = {{"Sample &mass (mg):", mass_, massSource_},
                {"Mo&lar mass (g mol-1):", molarMass_, molarMassSource_},
                {"&Diamagnetic correction (cm3 mol-1):", diamagnetic_, nullptr}};
    int r = 0;
    for (const auto& row : rows) {
        auto* label = new QLabel(tr(row.label), box);
        label->setBuddy(row.field);
        grid->addWidget(label, r, 0);
        grid->addWidget(row.field, r, 1);
        if (row.source != nullptr) grid->addWidget(row.source, r, 2);
        ++r;
    }
    // SAMPLE_SIZE is a lab's habit, not the instrument's: offered, never filled in.
    if (file_.sampleSize.given) {
        const QString value = qs(corvane::formatC("%.10g", file_.sampleSize.value));
        sampleSizeButton_ = new QPushButton(tr("Use %1").arg(value), box);
        sampleSizeButton_->setToolTip(tr("Takes the header's SAMPLE_SIZE as the diamagnetic "
                                         "correction"));
        auto* note = new QLabel(tr("from the file's header (SAMPLE_SIZE, where some labs keep "
                                   "the molar diamagnetic correction)"),
                                box);
        note->setWordWrap(true);
        grid->addWidget(sampleSizeButton_, r, 1);
        grid->addWidget(note, r++, 2);
        connect(sampleSizeButton_, &QPushButton::clicked, this,
                [this, value] { diamagnetic_->setText(value); });
    }
    estimateButton_ = new QPushButton(box);
    estimateButton_->setToolTip(tr("Takes the estimate from the molar mass as the diamagnetic "
                                   "correction"));
    estimateNote_ = new QLabel(tr("an estimate from the molar mass (-0.5e-6 cm3 mol-1 per "
                                  "g mol-1)"),
                               box);
    estimateNote_->setWordWrap(true);
    grid->addWidget(estimateButton_, r, 1);
    grid->addWidget(estimateNote_, r, 2);
    grid->setColumnStretch(2, 1);
    connect(estimateButton_, &QPushButton::clicked, this, [this] {
        double molar = 0;
        if (corvane::parseReal(molarMass_->text().trimmed().toStdString(), molar))
            diamagnetic_->setText(
                qs(corvane::formatC("%.3g", corvane::estimatedDiamagnetic(molar))));
    });
    return box;
}

QWidget* MomentDialog::buildSets() {
    auto* column = new QWidget(this);
    auto* layout = new QVBoxLayout(column);
    layout->setContentsMargins(0, 0, 0, 0);
    chiBox_ = new QGroupBox(tr("&Chi or chiT set"), column);
    chiBox_->setCheckable(true);
    chiBox_->setToolTip(tr("The rows measured at one field, sorted by temperature"));
    auto* chiForm = new QFormLayout(chiBox_);
    field_ = new QComboBox(chiBox_);
    for (const corvane::Level& level : fields_)
        field_->addItem(levelText(level, "Oe", 5), level.value);
    field_->setToolTip(tr("The field of the rows; the one most rows have comes first"));
    kind_ = new QComboBox(chiBox_);
    kind_->addItem(tr("chiT (cm3 K mol-1)"));
    kind_->addItem(tr("chi (cm3 mol-1)"));
    chiForm->addRow(tr("&Field:"), field_);
    chiForm->addRow(tr("&Values:"), kind_);
    magnetBox_ = new QGroupBox(tr("M&agnetization set"), column);
    magnetBox_->setCheckable(true);
    magnetBox_->setToolTip(tr("The rows of a field loop at one temperature, H > 0"));
    auto* magnetForm = new QFormLayout(magnetBox_);
    temperature_ = new QComboBox(magnetBox_);
    const std::vector<corvane::Level> loops = corvane::loopTemperatures(file_);
    for (const corvane::Level& level : temperatures_) {
        QString text = levelText(level, "K", 3);
        for (const corvane::Level& loop : loops)
            if (corvane::sameTemperature(loop.value, level.value)) text += tr(", a field loop");
        temperature_->addItem(text, level.value);
    }
    temperature_->setToolTip(tr("The temperature of the rows"));
    branch_ = new QComboBox(magnetBox_);
    branch_->addItem(tr("the first branch on which the field rises"));
    branch_->addItem(tr("every point with H > 0"));
    branch_->setToolTip(tr("Which rows at that temperature: by default the first rising branch "
                           "of the loop (the virgin curve of a loop that starts at 0)"));
    magnetForm->addRow(tr("&Temperature:"), temperature_);
    magnetForm->addRow(tr("&Rows:"), branch_);
    layout->addWidget(chiBox_);
    layout->addWidget(magnetBox_);
    layout->addStretch(1);
    return column;
}

MomentChoice MomentDialog::choice() const {
    MomentChoice c;
    c.mass = mass_->text().trimmed().toStdString();
    c.molarMass = molarMass_->text().trimmed().toStdString();
    c.diamagnetic = diamagnetic_->text().trimmed().toStdString();
    c.chiSet = chiBox_->isChecked() && field_->count() > 0;
    c.kind = static_cast<corvane::DataKind>(kind_->currentIndex());
    c.field = field_->currentData().toDouble();
    c.magnetSet = magnetBox_->isChecked() && temperature_->count() > 0;
    c.temperature = temperature_->currentData().toDouble();
    c.branch =
        branch_->currentIndex() == 0 ? corvane::Branch::FirstRising : corvane::Branch::AllPositive;
    return c;
}

QPushButton* MomentDialog::okButton() const { return buttons_->button(QDialogButtonBox::Ok); }

void MomentDialog::update() {
    const MomentChoice now = choice();
    // Where each of the sample's values comes from.
    const std::pair<QLabel*, const corvane::HeaderValue*> sources[] = {
        {massSource_, &file_.mass}, {molarMassSource_, &file_.molarMass}};
    const std::string typed[] = {now.mass, now.molarMass};
    for (int k = 0; k < 2; ++k) {
        const auto& [label, header] = sources[k];
        const std::string value = corvane::formatC("%.10g", header->value);
        label->setText(
            !header->given ? tr("not in the file's header")
            : typed[k] == value
                ? tr("from the file's header (%1)").arg(qs(header->name))
                : tr("the file's header gives %1 (%2)").arg(qs(value), qs(header->name)));
    }
    double molar = 0;
    const bool hasMolar = corvane::parseReal(now.molarMass, molar) && molar > 0;
    estimateButton_->setEnabled(hasMolar);
    estimateButton_->setText(
        hasMolar ? tr("Use the estimate %1")
                       .arg(qs(corvane::formatC("%.3g", corvane::estimatedDiamagnetic(molar))))
                 : tr("Use an estimate"));

    problems_ = convertMoments(file_, now, converted_);
    QStringList lines;
    for (const std::string& problem : problems_) lines << qs(problem);
    problemText_->setText(lines.join(QLatin1Char('\n')));
    if (!problems_.empty()) converted_ = {};
    summary_->setText(qs(converted_.summary));
    std::vector<std::pair<std::string, std::string>> chi, magnet;
    for (const PairText& pair : converted_.pairs) chi.emplace_back(pair.temperature, pair.value);
    for (const MagnetText& point : converted_.points) magnet.emplace_back(point.field, point.value);
    chiPreview_->setPairs(pointsOf(chi), QString::fromLatin1(observedName(now.kind)));
    magnetPreview_->setPairs(pointsOf(magnet), tr("M (N muB)"), tr("H (T)"));
    okButton()->setEnabled(problems_.empty());
}

} // namespace newqpi
