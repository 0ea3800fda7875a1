// The dialog that takes a magnetometer's file into newQPI: the sample's mass, molar mass and
// diamagnetic correction (the header's values filled in and marked as such, SAMPLE_SIZE and an
// estimate from the molar mass offered on buttons), the field of the chi or chiT set and the
// temperature and branch of the magnetization set, and a preview of both as converted.
#pragma once

#include <QDialog>

#include "moment_import.h"

class QCheckBox;
class QComboBox;
class QDialogButtonBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace newqpi {

class DataPreview;

class MomentDialog final : public QDialog {
public:
    // kind: chi or chiT, as the window's form has it.
    MomentDialog(corvane::MomentFile file, corvane::DataKind kind, QWidget* parent = nullptr);

    MomentChoice choice() const;
    // The sets as converted, and the problems that keep them from being taken (OK is enabled
    // only without one).
    const ConvertedMoments& converted() const { return converted_; }
    const std::vector<std::string>& problems() const { return problems_; }

    // The controls, for the tests.
    QLineEdit* massField() const { return mass_; }
    QLineEdit* molarMassField() const { return molarMass_; }
    QLineEdit* diamagneticField() const { return diamagnetic_; }
    QLabel* massSource() const { return massSource_; }
    QLabel* molarMassSource() const { return molarMassSource_; }
    QPushButton* sampleSizeButton() const { return sampleSizeButton_; }
    QPushButton* estimateButton() const { return estimateButton_; }
    QGroupBox* chiBox() const { return chiBox_; }
    QComboBox* fieldChoice() const { return field_; }
    QComboBox* kindChoice() const { return kind_; }
    QGroupBox* magnetBox() const { return magnetBox_; }
    QComboBox* temperatureChoice() const { return temperature_; }
    QComboBox* branchChoice() const { return branch_; }
    DataPreview* chiPreview() const { return chiPreview_; }
    DataPreview* magnetPreview() const { return magnetPreview_; }
    QPushButton* okButton() const;

private:
    QWidget* buildSample();
    QWidget* buildSets();
    void update();

    corvane::MomentFile file_;
    std::vector<corvane::Level> fields_, temperatures_;
    ConvertedMoments converted_;
    std::vector<std::string> problems_;

    QLineEdit *mass_, *molarMass_, *diamagnetic_;
    QLabel *massSource_, *molarMassSource_, *estimateNote_;
    QPushButton* sampleSizeButton_ = nullptr;
    QPushButton* estimateButton_;
    QGroupBox *chiBox_, *magnetBox_;
    QComboBox *field_, *kind_, *temperature_, *branch_;
    DataPreview *chiPreview_, *magnetPreview_;
    QLabel *summary_, *problemText_;
    QDialogButtonBox* buttons_;
};

} // namespace newqpi
