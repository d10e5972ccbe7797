// SPDX-License-Identifier: MIT
#include "trend_view.h"

#include <QGestureEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QPinchGesture>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace device;

namespace
{

constexpr double day = 86400;
constexpr double latest = 60;
constexpr double shortest = 10;

double secondsOf(LocalTime time)
{
    return double(time.date().toJulianDay()) * day + time.time().msecsSinceStartOfDay() / 1000;
}

LocalTime timeOf(double seconds)
{
    const double days = std::floor(seconds / day);
    return LocalTime(QDate::fromJulianDay(qint64(days)), QTime(0, 0).addSecs(int(seconds - days * day)));
}

const double earliest = secondsOf(LocalTime(QDate(1, 1, 1), QTime(0, 0)));
const double farthest = secondsOf(LocalTime(QDate(9999, 12, 31), QTime(23, 59, 59)));

// Distances of two marks on the time axis; those of months apart, which are not of one length.
constexpr int seconds[] = {1,    2,    5,    10,    15,    30,    60,    120,    300,    600,   900,
                           1800, 3600, 7200, 10800, 21600, 43200, 86400, 172800, 432000, 864000};
constexpr int months[] = {1, 3, 6, 12, 24, 60, 120, 240, 600, 1200, 2400, 6000, 12000, 60000};

QString textOf(LocalTime time, const char *format)
{
    return QDateTime(time.date(), time.time(), Qt::UTC).toString(QString::fromLatin1(format));
}

LocalTime startOfMonth(int month)
{
    return LocalTime(QDate(month / 12, month % 12 + 1, 1), QTime(0, 0));
}

double numberOf(const Sample &sample)
{
    return std::clamp(sample.number().value_or(0), -8e307, 8e307); // so that a difference of two is finite
}

} // namespace

TrendView::TrendView(TrendModel *model, const QString &title, QWidget *parent)
    : QWidget(parent), m_model(model), m_title(title)
{
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    setToolTip(QStringLiteral("Wheel, two fingers, + and -: zoom. Drag, arrow keys: move. Double click, Home: now. "
                              "Pale: rows are deleted"));
    grabGesture(Qt::PinchGesture);
    for (const auto signal : {&TrendModel::trendChanged, &TrendModel::errorChanged, &TrendModel::busyChanged})
        connect(model, signal, this, [this] { update(); });
    showLatest(latest);
}

LocalTime TrendView::from() const
{
    return timeOf(m_from);
}

LocalTime TrendView::to() const
{
    return timeOf(m_to);
}

void TrendView::follow()
{
    if (m_isLatest)
        showLatest(m_to - m_from);
}

void TrendView::showLatest(double span)
{
    const double now = secondsOf(LocalTime::now());
    setRange(now - span, now);
    m_isLatest = true; // even if the clock went on in between
}

void TrendView::setRange(double from, double to)
{
    const double span = std::min(to - from, farthest - earliest);
    m_from = std::clamp(from, earliest, farthest - span);
    m_to = m_from + span;
    m_isLatest = m_to >= secondsOf(LocalTime::now());
    ask();
    update();
}

void TrendView::zoom(double factor, double around)
{
    const double span = m_to - m_from;
    const double wanted = std::clamp(span * factor, shortest, farthest - earliest);
    const double from = around - (around - m_from) * wanted / span;
    setRange(from, from + wanted);
}

void TrendView::ask()
{
    m_model->show(TrendQuery::between(from(), to()).columns(std::max(1, int(area().width()))));
}

QRectF TrendView::area() const
{
    const int line = fontMetrics().height();
    return QRectF(rect()).adjusted(5 * line, 1.5 * line, -2 * line, -1.5 * line);
}

double TrendView::x(double time) const
{
    return area().left() + (time - m_from) / (m_to - m_from) * area().width();
}

double TrendView::timeAt(double x) const
{
    return m_from + (x - area().left()) / std::max(1.0, area().width()) * (m_to - m_from);
}

void TrendView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().base());
    const char format[] = "yyyy-MM-dd hh:mm:ss";
    QString text = QStringLiteral("%1, %2 to %3").arg(m_title, textOf(from(), format), textOf(to(), format));
    if (!m_model->errorText().isEmpty())
        text = m_model->errorText();
    painter.drawText(QRectF(rect()).adjusted(6, 3, -6, 0), Qt::AlignTop, text);
    drawTimes(painter);

    double low = std::numeric_limits<double>::infinity(), high = -low;
    for (const TrendColumn &column : m_model->trend().columns) {
        if (column.numbers == 0 || secondsOf(column.to) <= m_from || secondsOf(column.from) > m_to)
            continue;
        low = std::min(low, numberOf(column.lowest));
        high = std::max(high, numberOf(column.highest));
    }
    if (low > high) {
        painter.drawText(area(), Qt::AlignCenter, m_model->busy() ? QStringLiteral("…") : QStringLiteral("No samples"));
        return;
    }
    const double margin = low < high ? (high - low) / 20 : std::max(1.0, std::abs(high) / 100);
    painter.setClipRect(rect());
    drawValues(painter, low - margin, high + margin);
    painter.setClipRect(area());
    drawColumns(painter, low - margin, high + margin);
}

void TrendView::drawTimes(QPainter &painter) const
{
    const QRectF area = this->area();
    const double room = fontMetrics().horizontalAdvance(QStringLiteral("0000-00-00  "));
    const double least = room / std::max(1.0, area.width()) * (m_to - m_from);
    const auto mark = [&](LocalTime time, const char *format) {
        const double at = x(secondsOf(time));
        painter.setPen(palette().mid().color());
        painter.drawLine(QPointF(at, area.top()), QPointF(at, area.bottom()));
        painter.setPen(palette().text().color());
        painter.drawText(QRectF(at - room, area.bottom(), 2 * room, height() - area.bottom()), Qt::AlignCenter,
                         textOf(time, format));
    };
    if (const auto step = std::lower_bound(std::begin(seconds), std::end(seconds), least); step != std::end(seconds)) {
        for (double at = std::ceil(m_from / *step) * *step; at <= m_to; at += *step)
            mark(timeOf(at), std::fmod(at, day) == 0 ? "yyyy-MM-dd" : *step < 60 ? "hh:mm:ss" : "hh:mm");
        return;
    }
    const auto step = std::lower_bound(std::begin(months), std::end(months) - 1, least / (30 * day));
    const QDate first = from().date();
    for (int at = (first.year() * 12 + first.month() + *step - 1) / *step * *step;
         at < 120000 && secondsOf(startOfMonth(at)) <= m_to; at += *step)
        mark(startOfMonth(at), *step < 12 ? "yyyy-MM" : "yyyy");
}

void TrendView::drawValues(QPainter &painter, double low, double high) const
{
    const QRectF area = this->area();
    const double line = fontMetrics().height();
    const double least = (high - low) / std::max(1.0, area.height()) * 2 * line;
    const double tens = std::pow(10, std::floor(std::log10(least)));
    const double step = tens * (least <= 2 * tens ? 2 : least <= 5 * tens ? 5 : 10);
    const int decimals = int(std::clamp(-std::floor(std::log10(step)), 0.0, 6.0));
    const double first = std::ceil(low / step);
    for (int i = 0; first * step + i * step <= high && i < 100; ++i) {
        const double value = (first + i) * step;
        const double y = area.bottom() - (value - low) / (high - low) * area.height();
        painter.setPen(palette().mid().color());
        painter.drawLine(QPointF(area.left(), y), QPointF(area.right(), y));
        painter.setPen(palette().text().color());
        painter.drawText(QRectF(0, y - line, area.left() - 6, 2 * line), Qt::AlignRight | Qt::AlignVCenter,
                         std::abs(value) < 1e7 ? QString::number(value, 'f', decimals)
                                               : QString::number(value, 'g', 4));
    }
}

void TrendView::drawColumns(QPainter &painter, double low, double high) const
{
    const QRectF area = this->area();
    const auto y = [&](double value) { return area.bottom() - (value - low) / (high - low) * area.height(); };
    QColor colour = palette().highlight().color();
    double runsUntil = -1; // where the column before ends
    double before = 0;
    for (const TrendColumn &column : m_model->trend().columns) {
        const double left = x(secondsOf(column.from)), right = x(secondsOf(column.to));
        if (column.numbers == 0 || right < area.left() - width() || left > area.right() + width())
            continue;
        const double top = y(numberOf(column.highest)), bottom = y(numberOf(column.lowest));
        colour.setAlpha(column.exact ? 100 : 35);
        painter.fillRect(QRectF(left, top, right - left, std::max(1.0, bottom - top)), colour);
        colour.setAlpha(column.exact ? 255 : 110);
        painter.setPen(colour);
        const double mean = y(column.mean);
        painter.drawLine(QPointF(left, mean), QPointF(right, mean));
        if (runsUntil == secondsOf(column.from)) // no line over columns without rows
            painter.drawLine(QPointF(left, before), QPointF(left, mean));
        before = mean;
        runsUntil = secondsOf(column.to);
    }
}

void TrendView::resizeEvent(QResizeEvent *)
{
    ask();
}

void TrendView::wheelEvent(QWheelEvent *event)
{
    zoom(std::pow(2, -event->angleDelta().y() / 240.0), timeAt(event->position().x()));
}

void TrendView::mousePressEvent(QMouseEvent *event)
{
    m_grabbed = timeAt(event->pos().x());
}

void TrendView::mouseMoveEvent(QMouseEvent *event)
{
    const double moved = m_grabbed - timeAt(event->pos().x());
    setRange(m_from + moved, m_to + moved);
}

void TrendView::mouseDoubleClickEvent(QMouseEvent *event)
{
    showLatest(latest);
    m_grabbed = timeAt(event->pos().x());
}

void TrendView::keyPressEvent(QKeyEvent *event)
{
    const double step = (m_to - m_from) / 8;
    switch (event->key()) {
    case Qt::Key_Left:
        return setRange(m_from - step, m_to - step);
    case Qt::Key_Right:
        return setRange(m_from + step, m_to + step);
    case Qt::Key_Up:
    case Qt::Key_Plus:
        return zoom(0.5, (m_from + m_to) / 2);
    case Qt::Key_Down:
    case Qt::Key_Minus:
        return zoom(2, (m_from + m_to) / 2);
    case Qt::Key_Home:
        return showLatest(latest);
    default:
        QWidget::keyPressEvent(event);
    }
}

bool TrendView::event(QEvent *event)
{
    if (event->type() != QEvent::Gesture)
        return QWidget::event(event);
    if (const auto *pinch =
            static_cast<QPinchGesture *>(static_cast<QGestureEvent *>(event)->gesture(Qt::PinchGesture)))
        zoom(1 / std::max(0.01, pinch->scaleFactor()), timeAt(mapFromGlobal(pinch->centerPoint().toPoint()).x()));
    return true;
}
