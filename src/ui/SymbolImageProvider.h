#pragma once

#include <QQuickImageProvider>

// Draws the screens' symbols for QML: "image://symbol/<symbol>/<colour>", the colour as hex digits
// without '#' ("9aa0ad", or "ff9aa0ad" with opacity), the symbol taken from IconCatalogue.
class SymbolImageProvider : public QQuickImageProvider {
public:
    static inline const QString providerID = QStringLiteral("symbol");

    SymbolImageProvider();
    QPixmap requestPixmap(const QString& id, QSize* size, const QSize& requestedSize) override;
};
