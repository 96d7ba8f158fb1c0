#include "ui/OndrilQml.h"

#include "appaudio/AppAudioManager.h"
#include "ui/Appearance.h"
#include "ui/IconCatalogue.h"
#include "ui/SliderGeometry.h"
#include "ui/SymbolImageProvider.h"
#include "ui/panel/AppListModel.h"
#include "ui/panel/AppsCardModel.h"

#include <QQmlEngine>

namespace OndrilQml {

void registerTypes() {
    static const bool registered = [] {
        // One Appearance for every engine; the engines do not own it.
        qmlRegisterSingletonType<Appearance>(
            "Ondril", 1, 0, "Appearance", [](QQmlEngine*, QJSEngine*) -> QObject* {
                QObject* appearance = &Appearance::shared();
                QJSEngine::setObjectOwnership(appearance, QJSEngine::CppOwnership);
                return appearance;
            });
        qmlRegisterSingletonType<SliderGeometry>(
            "Ondril", 1, 0, "SliderGeometry",
            [](QQmlEngine*, QJSEngine*) -> QObject* { return new SliderGeometry; });
        // Made by the panel and handed to the views as they stand.
        const QString madeByThePanel = QStringLiteral("made by the panel");
        qmlRegisterUncreatableType<AppsCardModel>("Ondril", 1, 0, "AppsCardModel", madeByThePanel);
        qmlRegisterUncreatableType<AppListModel>("Ondril", 1, 0, "AppListModel", madeByThePanel);
        qmlRegisterUncreatableType<AppAudioManager>("Ondril", 1, 0, "AppAudioManager",
                                                    madeByThePanel);
        return true;
    }();
    Q_UNUSED(registered);
}

void prepareEngine(QQmlEngine& engine) {
    registerTypes();
    IconCatalogue::installFallbackTheme();
    if (!engine.imageProvider(SymbolImageProvider::providerID))
        engine.addImageProvider(SymbolImageProvider::providerID, new SymbolImageProvider);
}

QUrl viewUrl(const QString& fileName) {
    return QUrl(QStringLiteral("qrc:/ondril/ui/") + fileName);
}

} // namespace OndrilQml
