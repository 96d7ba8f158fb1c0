#include "ui/IconCatalogue.h"

#include <QHash>
#include <QPainter>
#include <QStandardPaths>

namespace {

const QHash<QString, QString>& themeNames() {
    static const QHash<QString, QString> names = {
        {QStringLiteral("speaker.wave.1.fill"), QStringLiteral("audio-volume-low-symbolic")},
        {QStringLiteral("speaker.wave.2.fill"), QStringLiteral("audio-volume-medium-symbolic")},
        {QStringLiteral("speaker.wave.3.fill"), QStringLiteral("audio-volume-high-symbolic")},
        {QStringLiteral("speaker.wave.2"), QStringLiteral("audio-volume-medium-symbolic")},
        {QStringLiteral("speaker.slash.fill"), QStringLiteral("audio-volume-muted-symbolic")},
        {QStringLiteral("slider.horizontal.3"),
         QStringLiteral("multimedia-volume-control-symbolic")},
        {QStringLiteral("gearshape"), QStringLiteral("emblem-system-symbolic")},
        {QStringLiteral("lifepreserver"), QStringLiteral("help-browser-symbolic")},
        {QStringLiteral("arrow.triangle.2.circlepath"), QStringLiteral("view-refresh-symbolic")},
        {QStringLiteral("chevron.down"), QStringLiteral("pan-down-symbolic")},
        {QStringLiteral("chevron.right"), QStringLiteral("pan-end-symbolic")},
        {QStringLiteral("checkmark"), QStringLiteral("object-select-symbolic")},
        {QStringLiteral("circle"), QStringLiteral("radio-symbolic")},
        {QStringLiteral("largecircle.fill.circle"), QStringLiteral("radio-checked-symbolic")},
        {QStringLiteral("trash"), QStringLiteral("user-trash-symbolic")},
        {QStringLiteral("rectangle.stack.badge.plus"), QStringLiteral("list-add-symbolic")},
        {QStringLiteral("star"), QStringLiteral("non-starred-symbolic")},
        {QStringLiteral("star.fill"), QStringLiteral("starred-symbolic")},
        {QStringLiteral("app.fill"), QStringLiteral("application-x-executable-symbolic")},
        {QStringLiteral("waveform"), QStringLiteral("audio-x-generic-symbolic")},
    };
    return names;
}

// Symbols no theme icon fits: a speaker with no waves is not the theme's muted speaker.
const QHash<QString, QString>& drawnIcons() {
    static const QHash<QString, QString> paths = {
        {QStringLiteral("speaker.fill"),
         QStringLiteral(":/ondril/icons/ondril-speaker-symbolic.svg")},
    };
    return paths;
}

QIcon tinted(const QIcon& source, const QColor& tint) {
    QIcon result;
    for (int size : {16, 22, 24, 32, 48}) {
        QPixmap pixmap = source.pixmap(QSize(size, size));
        if (pixmap.isNull())
            continue;
        QPainter painter(&pixmap);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(pixmap.rect(), tint);
        painter.end();
        result.addPixmap(pixmap);
    }
    return result;
}

} // namespace

void IconCatalogue::installFallbackTheme() {
    // Without a desktop's platform theme (offscreen, bare X servers) Qt looks for themes in its
    // resources only; the freedesktop places hold them.
    QStringList paths = QIcon::themeSearchPaths();
    for (const QString& data :
         QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation))
        if (!paths.contains(data + QLatin1String("/icons")))
            paths.append(data + QLatin1String("/icons"));
    QIcon::setThemeSearchPaths(paths);
    QIcon::setFallbackThemeName(QStringLiteral("Adwaita"));
    if (QIcon::themeName().isEmpty())
        QIcon::setThemeName(QStringLiteral("Adwaita"));
}

QString IconCatalogue::themeName(const QString& symbol) {
    return themeNames().value(symbol);
}

QString IconCatalogue::drawnIconPath(const QString& symbol) {
    return drawnIcons().value(symbol);
}

QIcon IconCatalogue::icon(const QString& symbol, const QColor& tint) {
    const QString drawn = drawnIconPath(symbol);
    const QIcon source = drawn.isEmpty() ? QIcon::fromTheme(themeName(symbol)) : QIcon(drawn);
    return tinted(source, tint);
}
