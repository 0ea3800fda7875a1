#include "data_preview.h"

#include <QPainter>
#include <algorithm>

#include "text/text.h"

namespace newqpi {

DataPreview::DataPreview(QWidget* parent) : QWidget(parent) {
    setMinimumSize(200, 120);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setToolTip(tr("The imported data: each pair as a point, the value against T"));
}

void DataPreview::setPairs(QVector<QPointF> pairs, const QString& valueName) {
    pairs_ = std::move(pairs);
    valueName_ = valueName;
    update();
}

namespace {

QString number(double value) { return QString::fromStdString(corvane::formatC("%g", value)); }

} // namespace

void DataPreview::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    const QFontMetrics metrics(font());
    const int margin = metrics.height() / 2;
    const QRect frame = rect().adjusted(margin + metrics.horizontalAdvance("0.000000"), margin,
                                        -margin, -margin - metrics.height());
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(frame);
    painter.setPen(palette().color(QPalette::Text));
    if (pairs_.isEmpty()) {
        painter.drawText(frame, Qt::AlignCenter, tr("No data yet"));
        return;
    }
    double tLow = pairs_[0].x(), tHigh = tLow, vLow = pairs_[0].y(), vHigh = vLow;
    for (const QPointF& p : pairs_) {
        tLow = std::min(tLow, p.x());
        tHigh = std::max(tHigh, p.x());
        vLow = std::min(vLow, p.y());
        vHigh = std::max(vHigh, p.y());
    }
    if (tHigh == tLow) tHigh = tLow + 1;
    if (vHigh == vLow) vHigh = vLow + 1;
    const QRectF inner = QRectF(frame).adjusted(4, 4, -4, -4); // markers stay inside the frame
    const auto place = [&](const QPointF& p) {
        return QPointF(inner.left() + (p.x() - tLow) / (tHigh - tLow) * inner.width(),
                       inner.bottom() - (p.y() - vLow) / (vHigh - vLow) * inner.height());
    };
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor(0x1f, 0x5f, 0xaf));
    painter.setPen(Qt::NoPen);
    for (const QPointF& p : pairs_) painter.drawEllipse(place(p), 2.5, 2.5);
    painter.setPen(palette().color(QPalette::Text));
    const int textTop = frame.bottom() + 2;
    painter.drawText(QRect(frame.left(), textTop, frame.width(), metrics.height()),
                     Qt::AlignLeft | Qt::AlignTop, number(tLow));
    painter.drawText(QRect(frame.left(), textTop, frame.width(), metrics.height()),
                     Qt::AlignHCenter | Qt::AlignTop, tr("T (K)"));
    painter.drawText(QRect(frame.left(), textTop, frame.width(), metrics.height()),
                     Qt::AlignRight | Qt::AlignTop, number(tHigh));
    const QRect side(0, frame.top(), frame.left() - 3, frame.height());
    painter.drawText(side, Qt::AlignRight | Qt::AlignTop, number(vHigh));
    painter.drawText(side, Qt::AlignRight | Qt::AlignVCenter, valueName_);
    painter.drawText(side, Qt::AlignRight | Qt::AlignBottom, number(vLow));
}

} // namespace newqpi
