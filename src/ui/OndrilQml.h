#pragma once

#include <QUrl>

class QQmlEngine;

// Makes Ondril's C++ side known to QML as the module "Ondril" (Appearance, SliderGeometry,
// and the types the panel hands to its views), once per process. The views themselves lie under
// qrc:/ondril/ui/.
namespace OndrilQml {

void registerTypes();
// What every engine that shows Ondril's views needs beside the module: the symbol images.
void prepareEngine(QQmlEngine& engine);
QUrl viewUrl(const QString& fileName);

} // namespace OndrilQml
