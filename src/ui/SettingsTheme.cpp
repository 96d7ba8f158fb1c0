#include "ui/SettingsTheme.h"

#include <QMetaProperty>

namespace {

QColor grey(double level, double alpha = 1.0) {
    return QColor::fromRgbF(float(level), float(level), float(level), float(alpha));
}

QColor rgb(double red, double green, double blue) {
    return QColor::fromRgbF(float(red), float(green), float(blue));
}

} // namespace

SettingsTheme SettingsTheme::light() {
    SettingsTheme theme;
    theme.sidebar = rgb(0.93, 0.93, 0.95);
    theme.detail = rgb(0.96, 0.96, 0.97);
    theme.card = grey(1.0);
    theme.cardBorder = grey(0.0, 0.06);
    theme.hover = grey(0.0, 0.035);
    theme.selection = grey(0.0, 0.05);
    theme.selectionBorder = grey(0.0, 0.06);
    return theme;
}

SettingsTheme SettingsTheme::dark() {
    SettingsTheme theme;
    theme.sidebar = rgb(0.09, 0.09, 0.10);
    theme.detail = rgb(0.13, 0.13, 0.14);
    theme.card = rgb(0.17, 0.17, 0.18);
    theme.cardBorder = grey(1.0, 0.08);
    theme.hover = grey(1.0, 0.05);
    theme.selection = grey(1.0, 0.08);
    theme.selectionBorder = grey(1.0, 0.10);
    return theme;
}

QVariantMap SettingsTheme::toVariantMap() const {
    QVariantMap map;
    const QMetaObject& meta = staticMetaObject;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i)
        map.insert(QString::fromLatin1(meta.property(i).name()),
                   meta.property(i).readOnGadget(this));
    return map;
}
