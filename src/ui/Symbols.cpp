#include "ui/Symbols.h"

#include "ui/IconCatalogue.h"

QString Symbols::themeName(const QString& symbol) {
    return IconCatalogue::themeName(symbol);
}
