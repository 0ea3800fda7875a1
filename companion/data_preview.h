// A small plot of the measured pairs: the value against T (or against the field), each pair a
// marker, with the range of each axis written at its ends. Pairs that are not numbers are left
// out.
#pragma once

#include <QPointF>
#include <QRect>
#include <QString>
#include <QVector>
#include <QWidget>

namespace newqpi {

// The text of one end of an axis that runs from low to high: the shortest form, fixed or with
// an exponent ("0.003634", "3.6e-5"), that lies within a thousandth of the axis's length and
// half a percent of the value; fixed unless that is two characters longer or more.
QString axisEndText(double value, double low, double high);

class DataPreview final : public QWidget {
public:
    explicit DataPreview(QWidget* parent = nullptr);
    // The points (argument, value) and the names of the axes.
    void setPairs(QVector<QPointF> pairs, const QString& valueName,
                  const QString& argumentName = QStringLiteral("T (K)"));
    QSize sizeHint() const override { return {320, 170}; }

    // What the preview writes beside its frame, and the frame: the side column left of the
    // frame holds the value axis's texts whole.
    struct Axes {
        double tLow = 0, tHigh = 1, vLow = 0, vHigh = 1;
        QString tLowText, tHighText, vLowText, vHighText;
    };
    Axes axes() const;
    QRect frame(const Axes& axes) const;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QVector<QPointF> pairs_;
    QString valueName_, argumentName_ = QStringLiteral("T (K)");
};

} // namespace newqpi
