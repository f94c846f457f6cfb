#include "app/desktop/StatusIcons.h"

#include <QGuiApplication>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QPixmap>

namespace {

// A folder with an arrow leaving it: files reached from elsewhere. Drawn on a 64-unit grid and scaled.
QPixmap drawn(int size, const QColor &body, const QColor &mark)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / 64.0, size / 64.0);
    QPainterPath folder;
    folder.moveTo(6, 16);
    folder.lineTo(24, 16);
    folder.lineTo(30, 22);
    folder.lineTo(58, 22);
    folder.lineTo(58, 54);
    folder.lineTo(6, 54);
    folder.closeSubpath();
    painter.fillPath(folder, body);
    QPen pen(mark, 6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    painter.setPen(pen);
    painter.drawLine(QPointF(22, 46), QPointF(42, 30));
    painter.drawPolyline(QPolygonF({QPointF(30, 30), QPointF(42, 30), QPointF(42, 42)}));
    return pixmap;
}

QIcon icon(const QColor &body, const QColor &mark)
{
    QIcon result;
    for (const int size : {16, 22, 24, 32, 48, 64})
        result.addPixmap(drawn(size, body, mark));
    return result;
}

} // namespace

namespace StatusIcons {

bool darkPanel()
{
    return QGuiApplication::palette().color(QPalette::Window).lightness() < 128;
}

QIcon colour()
{
    if (darkPanel())
        return icon(QColor(0xf2, 0xf2, 0xf2), QColor(0x3d, 0xa5, 0xff));
    return icon(QColor(0x1e, 0x78, 0xd2), Qt::white);
}

QIcon grey()
{
    if (darkPanel())
        return icon(QColor(0xbe, 0xbe, 0xbe), QColor(0x30, 0x30, 0x30));
    return icon(QColor(0x8c, 0x8c, 0x8c), Qt::white);
}

} // namespace StatusIcons
