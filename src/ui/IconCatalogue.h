#pragma once

#include <QColor>
#include <QIcon>
#include <QString>

// One place that turns the symbol names the screens and menus use ("speaker.wave.2.fill",
// "gearshape") into icons: a freedesktop symbolic icon of the desktop's theme (Adwaita when the
// desktop's theme lacks it), or an SVG drawn for Ondril where no theme icon fits.
class IconCatalogue {
public:
    // Makes Adwaita the theme to fall back on; call once before the first icon is drawn.
    static void installFallbackTheme();

    // The theme icon name for a symbol; empty when Ondril draws the symbol itself.
    static QString themeName(const QString& symbol);
    // The symbol's own drawing under qrc:/ondril/icons/, or empty.
    static QString drawnIconPath(const QString& symbol);
    // The icon, with its symbolic drawing recoloured to `tint` (hosts without the theme get
    // these images).
    static QIcon icon(const QString& symbol, const QColor& tint);
};
