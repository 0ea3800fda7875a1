// The window of newQPI: one form for a whole fitting problem, checked as it is typed, saved as
// an input file whose name goes to the name store for the desktop program.
#pragma once

#include <QMainWindow>
#include <QString>
#include <functional>
#include <string>

#include "problem_form.h"

class QAction;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;
class QTabWidget;
class QTableWidget;

namespace newqpi {

class DataPreview;
class MomentDialog;

class NewQpiWindow final : public QMainWindow {
public:
    NewQpiWindow();

    // Fills the form from the input file at path; false (after the reader's message) when it
    // cannot be read. The file's name is then offered when saving.
    bool openInputFile(const QString& path);
    // Imports pairs from text with its value in the column chosen; source names it in messages
    // and the status line. False, after a message, when there are none.
    bool importText(const std::string& text, const QString& source);
    // A text table as importText reads it; a magnetometer's MPMS3 file as importMomentFile.
    bool importFile(const QString& path);
    // A magnetometer's file (MPMS3, or columns of T, H and moment): read, then the sample's
    // values and the sets chosen in the dialog; the chosen sets replace the form's pairs (with
    // their field and kind) or magnetization points. False, after a message, when the file
    // cannot be read, or when the dialog is cancelled.
    bool importMomentFile(const QString& path);

    // The form as the fields hold it, and its problems as last shown.
    ProblemForm form() const;
    QStringList problems() const;

    // Save: refused with a beep while a problem remains; otherwise the save dialog, the file
    // written whole, its name stored for the holder of the token, the window closed. The same
    // as the Save button.
    void save();
    // The token of the desktop window that started newQPI (File > New) and waits for the saved
    // file's name; none (started by hand): the name is stored for no one.
    void setQpnameToken(const std::string& token) { qpnameToken_ = token; }

    // The file choosers, replaced by the tests: the name to save under ("" for Cancel), the
    // file to import or open ("" for Cancel).
    std::function<QString(const QString& suggested)> chooseSavePath;
    std::function<QString()> chooseImportPath;
    std::function<QString()> chooseOpenPath;
    // Runs the magnetometer dialog; true when the user accepts it. Replaced by the tests.
    std::function<bool(MomentDialog&)> runMomentDialog;

    // The fields, for the tests.
    QLineEdit* titleField() const { return title_; }
    QSpinBox* siteCountField() const { return siteCount_; }
    QTableWidget* sitesTable() const { return sites_; }
    QSpinBox* jCountField() const { return jCount_; }
    QTableWidget* jTable() const { return jValues_; }
    QTableWidget* pathsTable() const { return paths_; }
    QTableWidget* dataTable() const { return data_; }
    QTableWidget* magnetTable() const { return magnet_; }
    QLineEdit* fieldField() const { return field_; }
    QComboBox* observedField() const { return observed_; }
    QComboBox* unitField() const { return unit_; }
    QPushButton* saveButton() const { return saveButton_; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    struct ParameterRow {
        QLineEdit* start;
        QLineEdit* step;
        QCheckBox* fit;
    };
    QWidget* buildProblem();
    QWidget* buildParameters();
    QWidget* buildSites();
    QWidget* buildJValues();
    QWidget* buildPaths();
    QWidget* buildData();
    void buildMenu();

    void setForm(const ProblemForm& form);
    void setSiteCount(int count);
    void setJCount(int count);
    void setPairs(const std::vector<PairText>& pairs);
    void setMagnetPoints(const std::vector<MagnetText>& points);
    // The save name and the title a data file suggests, where none is given yet.
    void importedFrom(const QString& path, const std::string& material);
    void setPaths(const std::vector<PathText>& paths);
    void addShape(PathShape shape);
    void pasteData();
    void removeSelectedRows(QTableWidget* table);
    void reimport();
    void changed();
    void check();
    bool confirmDiscard();

    QLineEdit* title_;
    QComboBox* observed_;
    QComboBox* unit_;
    QLineEdit* precision_;
    ParameterRow g_, c_, zJ_, tip_;
    QSpinBox* siteCount_;
    QComboBox* allSites_;
    QTableWidget* sites_;
    QSpinBox* jCount_;
    QTableWidget* jValues_;
    QTableWidget* paths_;
    QLineEdit* shapeSites_;
    QSpinBox* shapeJ_;
    QSpinBox* valueColumn_;
    QTabWidget* dataTabs_;
    QLineEdit* field_;
    QTableWidget* data_;
    DataPreview* preview_;
    QTableWidget* magnet_;
    DataPreview* magnetPreview_;
    QLabel* dataNote_;
    QListWidget* problems_;
    QPushButton* saveButton_;
    QAction* saveAction_ = nullptr;

    std::string importedText_; // the text last imported, read again when the column changes
    QString importedSource_;
    QString suggestedPath_; // offered in the save dialog
    std::string qpnameToken_;
    // As the input file opened gives them: newQPI keeps them, it does not change them.
    corvane::Weighting weighting_ = corvane::Weighting::Uniform;
    double magnetWeight_ = 1.0;
    bool filling_ = false;  // the program, not the user, is changing the fields
    bool edited_ = false;   // the user has changed something since the start or the last open
    bool done_ = false;     // saved (or cancelled): closing asks nothing
};

} // namespace newqpi
