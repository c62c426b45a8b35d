#include "app/icons.h"

#include <QPainter>
#include <QPainterPath>
#include <functional>

#include "workbench/commands.h"

namespace lumetra {
namespace {

using Draw = std::function<void(QPainter&)>;

// Draws on a 24 x 24 grid, at several sizes so that the icon stays sharp.
QIcon Paint(const Draw& draw) {
    QIcon icon;
    for (int size : {16, 24, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter p(&pixmap);
        p.setRenderHint(QPainter::Antialiasing);
        p.scale(size / 24.0, size / 24.0);
        draw(p);
        icon.addPixmap(pixmap);
    }
    return icon;
}

const QColor kInk(0x33, 0x3d, 0x4a);
const QColor kBlue(0x2f, 0x7f, 0xd8);
const QColor kGreen(0x2e, 0x9e, 0x4f);
const QColor kRed(0xd8, 0x3a, 0x34);
const QColor kAmber(0xe8, 0xa2, 0x1a);

QPen Pen(const QColor& c, double width = 1.8) {
    return QPen(c, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

void Camera(QPainter& p) {
    p.setPen(Pen(kInk));
    p.setBrush(QColor(0xe6, 0xea, 0xef));
    p.drawRoundedRect(QRectF(2.5, 7, 19, 13), 2.5, 2.5);
    p.drawRect(QRectF(8, 4.5, 8, 3));
    p.setBrush(kBlue);
    p.drawEllipse(QPointF(12, 13.5), 4.2, 4.2);
}

void Magnifier(QPainter& p, const QString& sign) {
    p.setPen(Pen(kInk, 2.2));
    p.setBrush(QColor(0xf4, 0xf8, 0xff));
    p.drawEllipse(QPointF(10, 10), 7, 7);
    p.drawLine(QPointF(15, 15), QPointF(21.5, 21.5));
    p.setPen(Pen(kBlue, 2.2));
    if (sign == "+" || sign == "-") {
        p.drawLine(QPointF(6.5, 10), QPointF(13.5, 10));
    }
    if (sign == "+") {
        p.drawLine(QPointF(10, 6.5), QPointF(10, 13.5));
    }
    if (sign == "max") {
        p.setFont(QFont("Sans", 5, QFont::Bold));
        p.drawText(QRectF(3, 5, 14, 10), Qt::AlignCenter, "384");
    }
}

}  // namespace

QIcon CommandIcon(int id) {
    switch (id) {
        case cmd::kOpenImage:
        case cmd::kOpenConfiguration:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(kAmber);
                QPainterPath folder;
                folder.moveTo(2.5, 6);
                folder.lineTo(9, 6);
                folder.lineTo(11, 8);
                folder.lineTo(21.5, 8);
                folder.lineTo(21.5, 19.5);
                folder.lineTo(2.5, 19.5);
                folder.closeSubpath();
                p.drawPath(folder);
            });
        case cmd::kSaveImage:
        case cmd::kSaveConfiguration:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(kBlue);
                p.drawRoundedRect(QRectF(3, 3, 18, 18), 2, 2);
                p.setBrush(Qt::white);
                p.drawRect(QRectF(7, 3, 10, 6));
                p.drawRect(QRectF(6, 13, 12, 8));
            });
        case cmd::kGrabOnce:
            return Paint(Camera);
        case cmd::kGrabContinuous:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kGreen.darker(130)));
                p.setBrush(kGreen);
                QPolygonF play;
                play << QPointF(6, 4) << QPointF(20, 12) << QPointF(6, 20);
                p.drawPolygon(play);
            });
        case cmd::kGrabStop:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kRed.darker(130)));
                p.setBrush(kRed);
                p.drawRoundedRect(QRectF(5, 5, 14, 14), 2, 2);
            });
        case cmd::kSoftwareTrigger:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kAmber.darker(140)));
                p.setBrush(kAmber);
                QPolygonF bolt;
                bolt << QPointF(14, 2) << QPointF(5, 13) << QPointF(11, 13) << QPointF(9, 22)
                     << QPointF(19, 10) << QPointF(13, 10);
                p.drawPolygon(bolt);
            });
        case cmd::kCalibration:
        case cmd::kMarker:
            return Paint([id](QPainter& p) {
                p.setPen(Pen(id == cmd::kMarker ? kRed : kInk));
                p.setBrush(Qt::NoBrush);
                p.drawEllipse(QPointF(12, 12), 7, 7);
                p.drawLine(QPointF(12, 2), QPointF(12, 22));
                p.drawLine(QPointF(2, 12), QPointF(22, 12));
            });
        case cmd::kBoardConfiguration:
        case cmd::kSystemConfiguration:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(QColor(0xc9, 0xd2, 0xdc));
                QPainterPath gear;
                for (int i = 0; i < 8; ++i) {
                    QTransform t;
                    t.translate(12, 12);
                    t.rotate(i * 45.0);
                    gear.addPolygon(t.map(QPolygonF(QRectF(-2, -10, 4, 5))));
                }
                gear.addEllipse(QPointF(12, 12), 6.5, 6.5);
                p.drawPath(gear.simplified());
                p.setBrush(Qt::white);
                p.drawEllipse(QPointF(12, 12), 2.5, 2.5);
            });
        case cmd::kBayerPattern:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk, 1));
                const QColor cells[4] = {kRed, kGreen, kGreen, kBlue};
                for (int i = 0; i < 4; ++i) {
                    p.setBrush(cells[i]);
                    p.drawRect(QRectF(3 + (i % 2) * 9, 3 + (i / 2) * 9, 9, 9));
                }
            });
        case cmd::kStartSaveVideo:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(QColor(0xe6, 0xea, 0xef));
                p.drawRoundedRect(QRectF(2.5, 5, 19, 14), 2, 2);
                p.setPen(Qt::NoPen);
                p.setBrush(kRed);
                p.drawEllipse(QPointF(12, 12), 4.5, 4.5);
            });
        case cmd::kStopSaveVideo:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(QColor(0xe6, 0xea, 0xef));
                p.drawRoundedRect(QRectF(2.5, 5, 19, 14), 2, 2);
                p.setPen(Qt::NoPen);
                p.setBrush(kInk);
                p.drawRect(QRectF(8.5, 8.5, 7, 7));
            });
        case cmd::kImageAnalytics:
        case cmd::kAdvancedHistogram:
            return Paint([](QPainter& p) {
                p.setPen(Qt::NoPen);
                p.setBrush(kBlue);
                const double heights[5] = {6, 12, 17, 10, 4};
                for (int i = 0; i < 5; ++i) {
                    p.drawRect(QRectF(3 + i * 3.8, 21 - heights[i], 3, heights[i]));
                }
                p.setPen(Pen(kInk, 1.2));
                p.drawLine(QPointF(2, 21.5), QPointF(22, 21.5));
            });
        case cmd::kHorizontalProfile:
        case cmd::kVerticalProfile:
            return Paint([id](QPainter& p) {
                if (id == cmd::kVerticalProfile) {
                    p.translate(24, 0);
                    p.rotate(90);
                }
                p.setPen(Pen(kGreen, 2));
                QPainterPath wave;
                wave.moveTo(2, 16);
                wave.cubicTo(6, 2, 10, 22, 14, 9);
                wave.cubicTo(17, 2, 19, 14, 22, 8);
                p.drawPath(wave);
            });
        case cmd::kVersion:
        case cmd::kAbout:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kBlue.darker(130)));
                p.setBrush(kBlue);
                p.drawEllipse(QPointF(12, 12), 9.5, 9.5);
                p.setPen(Qt::white);
                p.setFont(QFont("Serif", 12, QFont::Bold));
                p.drawText(QRectF(2, 2, 20, 20), Qt::AlignCenter, "i");
            });
        case cmd::kZoomIn:
            return Paint([](QPainter& p) { Magnifier(p, "+"); });
        case cmd::kZoomOut:
            return Paint([](QPainter& p) { Magnifier(p, "-"); });
        case cmd::kMaximumImage:
            return Paint([](QPainter& p) { Magnifier(p, "max"); });
        case cmd::kZoomFit:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(Qt::NoBrush);
                p.drawRect(QRectF(3, 5, 18, 14));
                p.setPen(Pen(kBlue));
                p.drawLine(QPointF(6, 8), QPointF(10, 12));
                p.drawLine(QPointF(18, 16), QPointF(14, 12));
                p.drawLine(QPointF(6, 8), QPointF(9, 8));
                p.drawLine(QPointF(18, 16), QPointF(15, 16));
            });
        case cmd::kOriginalSize:
            return Paint([](QPainter& p) {
                p.setPen(Pen(kInk));
                p.setBrush(QColor(0xf4, 0xf8, 0xff));
                p.drawRect(QRectF(3, 5, 18, 14));
                p.setPen(kBlue);
                p.setFont(QFont("Sans", 7, QFont::Bold));
                p.drawText(QRectF(3, 5, 18, 14), Qt::AlignCenter, "1:1");
            });
        default:
            return {};
    }
}

QIcon ApplicationIcon() {
    return Paint([](QPainter& p) {
        p.setPen(Pen(kInk, 1.2));
        p.setBrush(QColor(0x1d, 0x2b, 0x3a));
        p.drawRoundedRect(QRectF(1.5, 1.5, 21, 21), 4, 4);
        QRadialGradient lens(QPointF(10.5, 10.5), 8);
        lens.setColorAt(0, QColor(0x8f, 0xd3, 0xff));
        lens.setColorAt(1, kBlue.darker(150));
        p.setBrush(lens);
        p.setPen(Pen(QColor(0xe6, 0xea, 0xef), 1.5));
        p.drawEllipse(QPointF(12, 12), 7, 7);
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(255, 255, 255, 200));
        p.drawEllipse(QPointF(9.5, 9.5), 1.8, 1.8);
    });
}

}  // namespace lumetra
