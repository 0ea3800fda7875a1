// newQPI's window under the offscreen platform: a dimer built from a measured file and saved,
// an input file opened, Cancel, a save with no window waiting for the name.
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QTableWidget>
#include <QTest>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

#include "data_preview.h"
#include "fit/input_file.h"
#include "moment_dialog.h"
#include "newqpi_window.h"
#include "platform/files.h"
#include "qpname/qpname.h"
#include "support/fixtures.h"
#include "support/qt_application.h"

namespace newqpi {
namespace {

class NewQpiWindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { corvane::testing::ensureApplication(); }
    void SetUp() override {
        setenv("XDG_RUNTIME_DIR", dir.path().c_str(), 1); // the name store of this test alone
        window.show();
        window.activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    }
    // The button of the window labelled text (without its "&").
    QPushButton* button(const QString& text) {
        for (QPushButton* b : window.findChildren<QPushButton*>())
            if (b->text().remove('&') == text) return b;
        ADD_FAILURE() << "no button " << text.toStdString();
        return nullptr;
    }

    corvane::testing::ScratchDir dir;
    corvane::testing::RecordingPort messages;
    NewQpiWindow window;
};

const QString examples = QStringLiteral(CORVANE_SOURCE_DIR "/examples/");

TEST_F(NewQpiWindowTest, ADimerBuiltFromAMeasuredFileIsSavedAndItsNameStored) {
    EXPECT_FALSE(window.saveButton()->isEnabled());
    window.chooseImportPath = [] { return examples + "d-nit2.tsv"; };
    QTest::mouseClick(button("Import..."), Qt::LeftButton);
    ASSERT_EQ(window.dataTable()->rowCount(), 29);
    EXPECT_EQ(window.dataTable()->item(28, 1)->text(), "0.003");
    EXPECT_EQ(window.titleField()->text(), "d-nit2");

    window.unitField()->setCurrentIndex(2); // K
    window.siteCountField()->setValue(2);
    EXPECT_TRUE(window.problems().contains("Site 1 has no spin."));
    for (int row = 0; row < 2; ++row)
        static_cast<QComboBox*>(window.sitesTable()->cellWidget(row, 0))->setCurrentIndex(1);
    window.jCountField()->setValue(1);
    EXPECT_EQ(window.problems(), QStringList{"J1 is not used by any path."});
    window.jTable()->item(0, 0)->setText("-200");
    window.jTable()->item(0, 1)->setText("2");
    QTest::mouseClick(button("Chain"), Qt::LeftButton); // all sites: 1 and 2
    ASSERT_EQ(window.pathsTable()->rowCount(), 1);

    // A value mistyped in the table keeps Save from being used until it is put right.
    window.dataTable()->item(3, 1)->setText("O.334");
    EXPECT_EQ(window.problems(), QStringList{"Pair 4: the chiT value \"O.334\" is not a number."});
    EXPECT_FALSE(window.saveButton()->isEnabled());
    window.dataTable()->item(3, 1)->setText("0.334");
    ASSERT_EQ(window.problems(), QStringList{});
    ASSERT_TRUE(window.saveButton()->isEnabled());

    const std::string token = corvane::newQpnameToken(); // File > New started this newQPI
    window.setQpnameToken(token);
    QString offered;
    window.chooseSavePath = [&](const QString& suggested) {
        offered = suggested;
        return QString::fromStdString(dir.file("dimer.qpi"));
    };
    QTest::mouseClick(window.saveButton(), Qt::LeftButton);
    EXPECT_EQ(offered, examples + "d-nit2.qpi"); // beside the data
    EXPECT_FALSE(window.isVisible());
    EXPECT_TRUE(messages.messages.empty());
    EXPECT_EQ(corvane::get_qpname(token), dir.file("dimer.qpi"));

    auto doc = std::make_unique<corvane::FitDocument>();
    ASSERT_TRUE(corvane::readInputText(dir.read("dimer.qpi"), "dimer.qpi", *doc));
    EXPECT_EQ(doc->title, "d-nit2");
    EXPECT_EQ(doc->energyUnit, corvane::EnergyUnit::Kelvin);
    EXPECT_EQ(doc->dataKind, corvane::DataKind::ChiT);
    ASSERT_EQ(doc->siteCount, 2);
    EXPECT_EQ(doc->sites[0].spin, 1);
    EXPECT_EQ(doc->sites[1].spin, 1);
    ASSERT_EQ(doc->interactionCount, 1);
    EXPECT_EQ(doc->interactions[0].parameterIndex, corvane::firstJParameter);
    EXPECT_EQ(doc->calculations[0].j[0].start, -200);
    EXPECT_EQ(doc->calculations[0].c.start, 0.001); // fitted unless the user clears it
    EXPECT_EQ(doc->calculations[0].c.step, 0.0001);
    ASSERT_EQ(doc->pairCount, 29);
    EXPECT_EQ(doc->pairs[0].temperature, 288.445);
    EXPECT_EQ(doc->pairs[3].observed, 0.334);
}

TEST_F(NewQpiWindowTest, AnInputFileOpensForEditingAndCancelStoresNoName) {
    ASSERT_TRUE(window.openInputFile(examples + "d-nit2.qpi"));
    EXPECT_EQ(window.problems(), QStringList{});
    EXPECT_EQ(window.dataTable()->rowCount(), 29);
    EXPECT_EQ(window.pathsTable()->item(0, 2)->text(), "J1");
    EXPECT_EQ(window.form().c.step, "0.00003");

    // Cells copied from a spreadsheet replace the data: Ctrl+V in the table.
    QGuiApplication::clipboard()->setText("T\tchiT\n2,0\t0,51\n300\t0,0012\n");
    window.dataTable()->setFocus();
    QTest::keyClick(window.dataTable(), Qt::Key_V, Qt::ControlModifier);
    ASSERT_EQ(window.dataTable()->rowCount(), 2);
    EXPECT_EQ(window.form().pairs[0].value, "0.51");

    window.titleField()->setText("D-NIT2, edited");
    messages.answers = {corvane::idNo, corvane::idYes};
    QTest::mouseClick(button("Cancel"), Qt::LeftButton); // "No": the window stays
    EXPECT_TRUE(window.isVisible());
    QTest::mouseClick(button("Cancel"), Qt::LeftButton);
    EXPECT_FALSE(window.isVisible());
    ASSERT_EQ(messages.messages.size(), 2u);
    EXPECT_EQ(messages.messages[0].text, "Discard the input file begun here?");
    EXPECT_EQ(corvane::testing::ScratchDir::listingOf(dir.path()), ""); // no name stored
}

TEST_F(NewQpiWindowTest, StartedByHandTheSavedFileIsHandedToNoWindow) {
    ASSERT_TRUE(window.openInputFile(examples + "d-nit2.qpi"));
    window.chooseSavePath = [&](const QString&) {
        return QString::fromStdString(dir.file("copy.qpi"));
    };
    window.save();
    EXPECT_FALSE(window.isVisible());
    EXPECT_TRUE(messages.messages.empty());
    EXPECT_EQ(corvane::testing::ScratchDir::listingOf(dir.path()), "copy.qpi");
}

// A field-cooled chiT and a magnetization loop, each from the magnetometer's own file, make one
// input file: the header's masses are offered and marked, SAMPLE_SIZE only on a button, and
// what the dialog previews is what is saved.
TEST_F(NewQpiWindowTest, AMagnetometersFilesGiveTheChiTAndTheMagnetizationThatAreSaved) {
    const QString mpms = QStringLiteral(CORVANE_SOURCE_DIR "/tests/data/mpms/");
    int shown = 0;
    window.runMomentDialog = [&](MomentDialog& dialog) {
        ++shown;
        EXPECT_EQ(dialog.massSource()->text(), "from the file's header (SAMPLE_MASS)");
        EXPECT_EQ(dialog.molarMassSource()->text(),
                  "from the file's header (SAMPLE_MOLECULAR_WEIGHT)");
        EXPECT_EQ(dialog.diamagneticField()->text(), "");
        EXPECT_TRUE(dialog.chiBox()->isChecked());
        EXPECT_FALSE(dialog.magnetBox()->isChecked());
        EXPECT_NEAR(dialog.chiPreview()->axes().tHigh, 299.9, 0.1);
        EXPECT_EQ(dialog.converted().pairs.back().value, "23.375");
        QTest::mouseClick(dialog.sampleSizeButton(), Qt::LeftButton);
        EXPECT_EQ(dialog.diamagneticField()->text(), "-0.00056176");
        EXPECT_EQ(dialog.converted().pairs.back().value, "23.5435");
        dialog.massField()->setText("10.3");
        EXPECT_EQ(dialog.massSource()->text(), "the file's header gives 10.2 (SAMPLE_MASS)");
        dialog.massField()->setText("");
        EXPECT_FALSE(dialog.okButton()->isEnabled());
        dialog.massField()->setText("10.2");
        EXPECT_TRUE(dialog.okButton()->isEnabled());
        return true;
    };
    window.chooseImportPath = [&] { return mpms + "fc5.dat"; };
    QTest::mouseClick(button("Import..."), Qt::LeftButton); // an MPMS3 file is recognised
    ASSERT_EQ(shown, 1);
    ASSERT_EQ(window.dataTable()->rowCount(), 151);
    EXPECT_EQ(window.dataTable()->item(150, 1)->text(), "23.5435");
    EXPECT_EQ(window.fieldField()->text(), "0.0199962");
    EXPECT_EQ(window.titleField()->text(), "[Er_TMSCOT_I_THF]2"); // the header's material

    // The loop's file: its first rising branch at 2 K, with the estimate of chi_dia; the chiT
    // pairs stay. A cancelled dialog changes nothing.
    window.chooseImportPath = [&] { return mpms + "mvsh9.dat"; };
    window.runMomentDialog = [](MomentDialog&) { return false; };
    QTest::mouseClick(button("Magnetometer..."), Qt::LeftButton);
    EXPECT_EQ(window.magnetTable()->rowCount(), 0);
    window.runMomentDialog = [&](MomentDialog& dialog) {
        EXPECT_EQ(dialog.sampleSizeButton()->text(), "Use -0.00050736");
        EXPECT_FALSE(dialog.chiBox()->isChecked());
        EXPECT_TRUE(dialog.magnetBox()->isChecked());
        EXPECT_EQ(dialog.branchChoice()->currentIndex(), 0); // the first rising branch
        QTest::mouseClick(dialog.estimateButton(), Qt::LeftButton);
        EXPECT_EQ(dialog.diamagneticField()->text(), "-0.000523");
        EXPECT_NEAR(dialog.magnetPreview()->axes().tHigh, 7.0, 0.001);
        return true;
    };
    QTest::mouseClick(button("Magnetometer..."), Qt::LeftButton);
    ASSERT_EQ(window.magnetTable()->rowCount(), 19);
    EXPECT_EQ(window.dataTable()->rowCount(), 151);

    window.siteCountField()->setValue(2);
    for (int row = 0; row < 2; ++row) // S = 15/2
        static_cast<QComboBox*>(window.sitesTable()->cellWidget(row, 0))->setCurrentIndex(15);
    window.jCountField()->setValue(1);
    QTest::mouseClick(button("Chain"), Qt::LeftButton);
    ASSERT_EQ(window.problems(), QStringList{});
    window.chooseSavePath = [&](const QString& suggested) {
        EXPECT_EQ(suggested, mpms + "fc5.qpi");
        return QString::fromStdString(dir.file("er2.qpi"));
    };
    window.save();
    auto doc = std::make_unique<corvane::FitDocument>();
    ASSERT_TRUE(corvane::readInputText(dir.read("er2.qpi"), "er2.qpi", *doc));
    EXPECT_EQ(doc->field, 0.0199962);
    EXPECT_EQ(doc->dataKind, corvane::DataKind::ChiT);
    EXPECT_EQ(doc->pairCount, 151);
    EXPECT_EQ(doc->pairs[150].observed, 23.5435);
    ASSERT_EQ(doc->magnetCount, 19);
    EXPECT_EQ(doc->magnetPoints[18].field, 7.00003);
    EXPECT_NEAR(doc->magnetPoints[18].observed, 8.09, 0.01);
}

// A 1080-line screen at scale 2 leaves newQPI some 500 lines: the window fits within the
// screen and shrinks to that height, the form scrolling and Save and Cancel whole below it.
// With room for the whole form, nothing scrolls.
TEST_F(NewQpiWindowTest, TheWindowFitsAShortScreenWithItsButtonsInView) {
    EXPECT_TRUE(window.screen()->availableGeometry().contains(window.frameGeometry()));
    window.resize(window.width(), 480);
    QTest::qWait(0);
    EXPECT_EQ(window.height(), 480);
    for (QPushButton* b : {window.saveButton(), button("Cancel")})
        EXPECT_EQ(b->visibleRegion().boundingRect(), b->rect());

    auto* scroll = window.findChild<QScrollArea*>();
    ASSERT_NE(scroll, nullptr);
    EXPECT_TRUE(scroll->verticalScrollBar()->isVisible());
    const int room = scroll->widget()->minimumSizeHint().height() - scroll->viewport()->height();
    window.resize(window.width(), window.height() + room);
    QTest::qWait(0);
    EXPECT_FALSE(scroll->verticalScrollBar()->isVisible());
}

} // namespace
} // namespace newqpi
