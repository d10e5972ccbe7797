// SPDX-License-Identifier: MIT
#pragma once

#include "device/models.h"

#include <QWidget>

/// The picture of a TrendModel: the mean as a line within the band from the lowest to the highest value, paler where
/// the rows are deleted. The wheel, two fingers and + and - zoom, dragging and the arrow keys move, a double click and
/// Home go back to the latest minute. The old columns are stretched until the answer for the new range comes.
class TrendView : public QWidget
{
public:
    TrendView(device::TrendModel *model, const QString &title, QWidget *parent = nullptr);

    /// Keeps up with the clock unless the operator looks at the past. To be called when rows were stored.
    void follow();

    device::LocalTime from() const;
    device::LocalTime to() const;

    QSize sizeHint() const override { return {600, 240}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool event(QEvent *event) override;

private:
    QRectF area() const;
    double x(double time) const;
    double timeAt(double x) const;
    void setRange(double from, double to);
    void zoom(double factor, double around);
    void showLatest(double span);
    void ask();
    void drawTimes(QPainter &painter) const;
    void drawValues(QPainter &painter, double low, double high) const;
    void drawColumns(QPainter &painter, double low, double high) const;

    device::TrendModel *const m_model;
    const QString m_title;
    // Seconds of the device's calendar and clock, without a zone, as the tables hold them.
    double m_from = 0;
    double m_to = 0;
    bool m_isLatest = true;
    double m_grabbed = 0; ///< The time under the pointer that drags.
};
