// A small plot of the measured pairs: the value against T, each pair a marker, with the range
// of each axis written at its ends. Pairs that are not numbers are left out.
#pragma once

#include <QPointF>
#include <QString>
#include <QVector>
#include <QWidget>

namespace newqpi {

class DataPreview final : public QWidget {
public:
    explicit DataPreview(QWidget* parent = nullptr);
    void setPairs(QVector<QPointF> pairs, const QString& valueName);
    QSize sizeHint() const override { return {320, 170}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QVector<QPointF> pairs_;
    QString valueName_;
};

} // namespace newqpi
