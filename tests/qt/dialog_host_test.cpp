#include <QApplication>
#include <QComboBox>
#include <QDialog>
#include <QFileDialog>
#include <QFontInfo>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>

#include "qt/dialog_host.h"
#include "qt/platform_services.h"
#include "resources/dialog_ids.h"
#include "resources/resources.h"
#include "support/fixtures.h"
#include "support/qt_application.h"

namespace corvane {
namespace {

class QtDialogHostTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing::ensureApplication(); }
    static std::intptr_t none(Dialog&, DialogMessage, int, Notification) { return 0; }
};

TEST_F(QtDialogHostTest, PlacesControlsAtTheirDialogUnitsInTheDialogFont) {
    QtDialog about(*findDialogTemplate("DL_ABOUT"), none, nullptr);
    // Arial 8 comes from its metric-compatible substitute, as narrow as the original.
    EXPECT_EQ(QFontInfo(about.window().font()).family(), "Liberation Sans");
    DialogBaseUnits units = about.baseUnits();
    EXPECT_GE(units.averageWidth, 5);
    EXPECT_LE(units.averageWidth, 6);
    EXPECT_GE(units.height, 12);
    EXPECT_LE(units.height, 14);
    EXPECT_EQ(about.window().size(), dialogRect(units, 0, 0, 189, 112).size());
    EXPECT_EQ(about.widget(AboutControl::ok)->geometry(), dialogRect(units, 81, 90, 32, 14));
    EXPECT_EQ(dialogRect({6, 13}, 81, 90, 32, 14), QRect(122, 146, 48, 23));

    QtDialog spin(*findDialogTemplate("DL_SPIN"), none, nullptr);
    DialogBaseUnits big = spin.baseUnits();
    EXPECT_GT(big.height, units.height); // 10 points
    EXPECT_EQ(spin.widget(SpinControl::firstCell + SpinControl::cellCount - 1)->geometry(), dialogRect(big, 241, 35, 7, 12));
    auto* status = qobject_cast<QLineEdit*>(spin.widget(SpinControl::statusLine));
    ASSERT_NE(status, nullptr);
    EXPECT_TRUE(status->isReadOnly());
    EXPECT_EQ(status->alignment() & Qt::AlignHCenter, Qt::AlignHCenter);

    // A message too wide for the status line wraps over it, whole; a short one shows as before.
    spin.window().show();
    const std::string message = "The fit gave no results: the fitting engine was killed by "
                                "signal 9 (Killed). /home/user/fits/cu3-triangle.qpo was not "
                                "changed.";
    spin.setText(SpinControl::statusLine, message);
    EXPECT_EQ(spin.text(SpinControl::statusLine), message);
    EXPECT_FALSE(status->isVisible());
    QLabel* wrapped = nullptr;
    for (QLabel* label : spin.window().findChildren<QLabel*>())
        if (label->isVisible() && label->text().toStdString() == message) wrapped = label;
    ASSERT_NE(wrapped, nullptr);
    EXPECT_TRUE(wrapped->wordWrap());
    EXPECT_GT(wrapped->heightForWidth(wrapped->width()), status->height());
    EXPECT_LE(wrapped->heightForWidth(wrapped->width()), wrapped->height());
    spin.setText(SpinControl::statusLine, "Fitting is being processed. Please wait...");
    EXPECT_TRUE(status->isVisible());
    EXPECT_FALSE(wrapped->isVisible());
}

// Procedure of a dialog with a field, a simple combo box and a drop-down list, and OK.
struct Recorder {
    DialogTemplate dialog{
        "DL_TRIP", "Trip", 0, 0, 160, 100, "MS Sans Serif", 8, dsCaption | dsSystemMenu, {}};
    std::vector<std::pair<int, Notification>> seen;
    Recorder() {
        dialog.controls = {
            {100, ControlKind::Edit, "", 10, 10, 50, 12, csTabStop | csBorder},
            {200, ControlKind::ComboBox, "", 70, 10, 50, 60, csTabStop},
            {300, ControlKind::ComboBox, "", 10, 30, 50, 60, csTabStop | csDropDownList},
            {999, ControlKind::Button, "OK", 10, 80, 30, 14, csTabStop | csDefault},
        };
    }
    DialogProc procedure() {
        return [this](Dialog& d, DialogMessage m, int id, Notification n) -> std::intptr_t {
            if (m == DialogMessage::Initialise) {
                for (const char* row : {"3.0", "1.0", "0.5"}) d.addRow(200, row);
                for (const char* row : {"Red", "Blue"}) d.addRow(300, row);
                d.select(200, 2);
                d.setText(100, "1.5");
                return 1;
            }
            if (m == DialogMessage::Close) {
                d.end(7);
                return 1;
            }
            seen.emplace_back(id, n);
            if (id == 999) d.end(static_cast<std::intptr_t>(d.text(100).size()));
            return 1;
        };
    }
    int count(int id, Notification n) const {
        return static_cast<int>(std::count(seen.begin(), seen.end(), std::make_pair(id, n)));
    }
};

TEST_F(QtDialogHostTest, TheWidgetsReportTheUsersActionsToTheProcedure) {
    Recorder recorder;
    QtDialogPort port;
    auto* trip = static_cast<QtDialog*>(port.createDialog(recorder.dialog, recorder.procedure()));
    ASSERT_NE(trip, nullptr);
    QDialog& window = trip->window();
    window.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&window));
    EXPECT_TRUE(recorder.seen.empty()); // the procedure's own filling reports nothing
    EXPECT_EQ(trip->text(200), "0.5");
    EXPECT_EQ(trip->selection(200), 2);
    EXPECT_EQ(trip->selection(300), -1);

    auto* field = qobject_cast<QLineEdit*>(trip->widget(100));
    field->setFocus();
    QTest::keyClicks(field, "25");
    EXPECT_EQ(recorder.count(100, Notification::EditChanged), 2);
    EXPECT_EQ(trip->text(100), "1.525");

    // Into the combo box's field: the edit loses the focus, and typing leaves no row chosen.
    auto* comboField = trip->widget(200)->findChild<QLineEdit*>();
    QTest::mouseClick(comboField, Qt::LeftButton);
    EXPECT_EQ(recorder.count(100, Notification::EditFocusLost), 1);
    EXPECT_EQ(recorder.count(200, Notification::EditFocusGained), 1);
    QTest::keyClicks(comboField, "1");
    EXPECT_EQ(trip->selection(200), -1);
    auto* rows = trip->widget(200)->findChild<QListWidget*>();
    QTest::mouseClick(rows->viewport(), Qt::LeftButton, {},
                      rows->visualItemRect(rows->item(1)).center());
    EXPECT_EQ(recorder.count(200, Notification::SelectionChanged), 1);
    EXPECT_EQ(trip->text(200), "1.0");
    EXPECT_EQ(trip->selection(200), 1);

    trip->disable(100);
    EXPECT_FALSE(trip->isEnabled(100));
    trip->setFocus(300);
    EXPECT_TRUE(trip->hasFocus(300));
    EXPECT_EQ(recorder.count(200, Notification::EditFocusLost), 0); // not the user's doing

    QTest::mouseClick(trip->widget(999), Qt::LeftButton);
    EXPECT_EQ(recorder.seen.back(), std::make_pair(999, Notification::Clicked));
    EXPECT_TRUE(trip->hasEnded());
    EXPECT_EQ(trip->result(), 5);
    EXPECT_FALSE(window.isVisible());
}

// Acts on the modal dialog once it is up and visible (not before: the event loop may turn
// before the dialog has shown).
void whenModal(std::function<void(QWidget*)> action) {
    auto* timer = new QTimer;
    QObject::connect(timer, &QTimer::timeout, [timer, action] {
        QWidget* modal = QApplication::activeModalWidget();
        if (modal == nullptr || !modal->isVisible()) return;
        timer->stop();
        timer->deleteLater();
        action(modal);
    });
    timer->start(5);
}

TEST_F(QtDialogHostTest, ModalDialogsEndByTheirProcedure) {
    Recorder recorder;
    QtDialogPort port;
    // Closed by the close box: the procedure decides the result.
    whenModal([](QWidget* modal) { modal->close(); });
    EXPECT_EQ(port.dialogBox(recorder.dialog, recorder.procedure()), 7);
    // Enter presses the default button.
    whenModal([](QWidget* modal) { QTest::keyClick(modal, Qt::Key_Return); });
    EXPECT_EQ(port.dialogBox(recorder.dialog, recorder.procedure()), 3);
    // A dialog ended while it initialises never shows.
    EXPECT_EQ(port.dialogBox(recorder.dialog,
                             [](Dialog& d, DialogMessage m, int, Notification) {
                                 if (m == DialogMessage::Initialise) d.end(1);
                                 return std::intptr_t{1};
                             }),
              1);
}

TEST_F(QtDialogHostTest, MessageBoxesShowTheStylesButtonsAndIcon) {
    QtMessagePort port;
    QMessageBox::StandardButtons buttons;
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    whenModal([&](QWidget* modal) {
        auto* box = qobject_cast<QMessageBox*>(modal);
        ASSERT_NE(box, nullptr);
        buttons = box->standardButtons();
        icon = box->icon();
        box->button(QMessageBox::No)->click();
    });
    EXPECT_EQ(port.messageBox("Are you sure to cancel ?", "Warning...", mbYesNo | mbIconQuestion),
              idNo);
    EXPECT_EQ(buttons, QMessageBox::Yes | QMessageBox::No);
    EXPECT_EQ(icon, QMessageBox::Question);
}

TEST_F(QtDialogHostTest, TheOpenFileChooserOffersTheFiltersAndAppendsTheExtension) {
    testing::ScratchDir dir;
    dir.write("run.qpi", "");
    QtChooserPort port;
    OpenFileRequest request{{{"Fitting input files (*.qpi)", "*.qpi"}, {"ALL Files (*.*)", "*.*"}},
                            2,
                            "QPI",
                            dir.file("old.qpi")};
    QStringList filters;
    QString shown;
    whenModal([&](QWidget* modal) {
        auto* chooser = qobject_cast<QFileDialog*>(modal);
        ASSERT_NE(chooser, nullptr);
        filters = chooser->nameFilters();
        shown = chooser->selectedNameFilter();
        chooser->selectFile(QString::fromStdString(dir.file("run")));
        static_cast<QDialog*>(chooser)->accept(); // as the Open button does
    });
    EXPECT_EQ(port.chooseOpenFile(request), dir.file("run.qpi"));
    EXPECT_EQ(filters, QStringList({"Fitting input files (*.qpi)", "ALL Files (*.*)"}));
    EXPECT_EQ(shown, "ALL Files (*.*)");

    whenModal([](QWidget* modal) { modal->close(); });
    EXPECT_FALSE(port.chooseOpenFile(request));
}

} // namespace
} // namespace corvane
