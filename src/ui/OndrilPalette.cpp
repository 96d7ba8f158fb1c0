#include "ui/OndrilPalette.h"

#include <QMetaProperty>

namespace {

QColor rgb(int red, int green, int blue, double alpha = 1.0) {
    QColor color(red, green, blue);
    color.setAlphaF(float(alpha));
    return color;
}

} // namespace

OndrilPalette OndrilPalette::light() {
    OndrilPalette palette;
    palette.textPrimary = rgb(35, 38, 45);
    palette.textSecondary = rgb(108, 114, 124);
    palette.textTertiary = rgb(154, 160, 170);
    palette.accent = rgb(47, 107, 255);
    palette.accentSoft = rgb(47, 107, 255, 0.12);
    palette.accentTrack = rgb(47, 107, 255);
    palette.rowHover = rgb(15, 20, 30, 0.035);
    palette.rowActive = rgb(47, 107, 255, 0.1);
    palette.hairline = rgb(15, 20, 30, 0.07);
    palette.trackEmpty = rgb(15, 20, 30, 0.1);
    palette.knob = rgb(255, 255, 255);
    palette.glyph = rgb(92, 99, 110);
    return palette;
}

OndrilPalette OndrilPalette::dark() {
    OndrilPalette palette;
    palette.textPrimary = rgb(236, 238, 243);
    palette.textSecondary = rgb(154, 160, 173);
    palette.textTertiary = rgb(107, 114, 128);
    palette.accent = rgb(76, 134, 255);
    palette.accentSoft = rgb(76, 134, 255, 0.2);
    palette.accentTrack = rgb(76, 134, 255);
    palette.rowHover = rgb(255, 255, 255, 0.045);
    palette.rowActive = rgb(76, 134, 255, 0.13);
    palette.hairline = rgb(255, 255, 255, 0.06);
    palette.trackEmpty = rgb(255, 255, 255, 0.11);
    palette.knob = rgb(244, 246, 250);
    palette.glyph = rgb(183, 190, 203);
    return palette;
}

QVariantMap OndrilPalette::toVariantMap() const {
    QVariantMap map;
    const QMetaObject& meta = staticMetaObject;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i)
        map.insert(QString::fromLatin1(meta.property(i).name()),
                   meta.property(i).readOnGadget(this));
    return map;
}
