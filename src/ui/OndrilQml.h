#pragma once

#include <QUrl>

// Makes Ondril's C++ side known to QML as the module "Ondril" (Appearance, SliderGeometry, Symbols,
// and the types the panel hands to its views), once per process. The views themselves lie under
// qrc:/ondril/ui/.
namespace OndrilQml {

void registerTypes();
QUrl viewUrl(const QString& fileName);

} // namespace OndrilQml
