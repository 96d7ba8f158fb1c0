#include "ui/SymbolImageProvider.h"

#include "ui/IconCatalogue.h"

#include <QIcon>

SymbolImageProvider::SymbolImageProvider()
    : QQuickImageProvider(QQuickImageProvider::Pixmap) {}

QPixmap SymbolImageProvider::requestPixmap(const QString& id, QSize* size,
                                           const QSize& requestedSize) {
    const qsizetype slash = id.lastIndexOf(QLatin1Char('/'));
    const QString symbol = slash < 0 ? id : id.left(slash);
    const QColor tint(slash < 0 ? QStringLiteral("#000000") : QLatin1Char('#') + id.mid(slash + 1));
    const QSize wanted = requestedSize.isValid() ? requestedSize : QSize(16, 16);
    const QPixmap pixmap = IconCatalogue::icon(symbol, tint).pixmap(wanted);
    if (size)
        *size = pixmap.size();
    return pixmap;
}
