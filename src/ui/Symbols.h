#pragma once

#include <QObject>
#include <QString>

// The symbol names of the screens, as QML reaches them: `Symbols.themeName("star.fill")` gives
// the theme icon an IconImage draws (IconCatalogue holds the table).
class Symbols : public QObject {
    Q_OBJECT

public:
    using QObject::QObject;
    Q_INVOKABLE static QString themeName(const QString& symbol);
};
