#include "ui/panel/PanelController.h"

#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "ui/IconCatalogue.h"
#include "ui/OndrilQml.h"
#include "ui/panel/AppsCardModel.h"
#include "ui/panel/MenuBarController.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>

PanelController::PanelController(AudioDeviceManager& audio, GroupManager& groups,
                                 AppSettings& settings, AppAudioManager& appAudio,
                                 LevelMeter& meter, RunningApplications& applications,
                                 QObject* parent)
    : QObject(parent)
    , m_audio(audio)
    , m_settings(settings)
    , m_appAudio(appAudio)
    , m_meter(meter)
    , m_appsCard(new AppsCardModel(appAudio, audio, groups, settings, applications, this))
    , m_menuBar(std::make_unique<MenuBarController>(groups, audio, settings, &meter)) {
    m_window = std::make_unique<QQuickView>();
    OndrilQml::prepareEngine(*m_window->engine());
    m_window->setFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    m_window->setColor(Qt::transparent);
    m_window->setTitle(QStringLiteral("Ondril"));
    m_window->setResizeMode(QQuickView::SizeRootObjectToView);
    m_window->resize(int(PanelPlacement::windowWidth),
                     int(m_contentHeight + 2 * PanelPlacement::margin));
    m_window->rootContext()->setContextProperty(QStringLiteral("panelController"), this);
    m_window->rootContext()->setContextProperty(QStringLiteral("menuBar"), m_menuBar.get());
    m_window->rootContext()->setContextProperty(QStringLiteral("groupManager"), &groups);
    m_window->rootContext()->setContextProperty(QStringLiteral("appsCard"), m_appsCard);
    m_window->setSource(OndrilQml::viewUrl(QStringLiteral("MenuBarView.qml")));
    if (QQuickItem* root = m_window->rootObject()) {
        connect(root, SIGNAL(heightReported(double)), this, SLOT(onHeightReported(double)));
        QMetaObject::invokeMethod(root, "reportHeight");
    }
    m_window->installEventFilter(this);
    connect(m_window.get(), &QWindow::activeChanged, this, &PanelController::onActiveChanged);

    m_settings.notificationCenter().addObserver(Notifications::closePanel, this,
                                                [this] { hide(); });
}

PanelController::~PanelController() = default;

void PanelController::onHeightReported(double height) {
    setContentHeight(height);
}

std::optional<qint64> PanelController::msSinceLastClose() const {
    if (!m_lastCloseAt.isValid())
        return std::nullopt;
    return m_lastCloseAt.elapsed();
}

bool PanelController::mayReopen(std::optional<qint64> msSinceLastClose) {
    return !msSinceLastClose || *msSinceLastClose > reopenGuardMs;
}

bool PanelController::isVisible() const {
    return m_window->isVisible();
}

std::optional<PanelPlacement::Placement> PanelController::reposition(QPoint under) const {
    QList<PanelPlacement::Screen> screens;
    const QList<QScreen*> all = QGuiApplication::screens();
    for (QScreen* screen : all)
        screens.append({QRectF(screen->geometry()), QRectF(screen->availableGeometry())});
    const auto index = PanelPlacement::screenFor(
        QPointF(under), screens, int(all.indexOf(QGuiApplication::primaryScreen())));
    if (!index)
        return std::nullopt;
    return PanelPlacement::place(QPointF(under), screens[*index], m_contentHeight);
}

void PanelController::show(QPoint under) {
    m_audio.refresh();
    m_appAudio.setPanelOpen(true);
    m_appAudio.refresh();
    m_meter.start();
    m_appAudio.startMetering();
    m_menuBar->appear();
    m_placement = reposition(under);
    if (m_placement)
        m_window->setGeometry(m_placement->window.toRect());
    m_wasActive = false;
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
    emit shown();
}

void PanelController::hide() {
    if (!isVisible())
        return;
    m_meter.stop();
    m_appAudio.stopMetering();
    m_appAudio.setPanelOpen(false);
    // Nothing listens for play state while the panel is closed; the next refresh listens again.
    m_appAudio.removeOutputListeners();
    m_window->hide();
    m_lastCloseAt.start();
    emit hidden();
}

void PanelController::setContentHeight(double height) {
    const auto next = PanelPlacement::nextContentHeight(m_contentHeight, height);
    if (!next)
        return;
    m_contentHeight = *next;
    if (!isVisible())
        return;
    if (m_placement) {
        m_window->setGeometry(PanelPlacement::resized(*m_placement, m_contentHeight).toRect());
    } else {
        m_window->resize(m_window->width(), int(m_contentHeight + 2 * PanelPlacement::margin));
    }
}

void PanelController::onActiveChanged() {
    // Click-away: activation passes to another window once the panel has had it.
    if (m_window->isActive()) {
        m_wasActive = true;
        return;
    }
    if (m_wasActive && isVisible() && !m_settings.pinPanel())
        hide();
}

bool PanelController::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_window.get() && event->type() == QEvent::KeyPress &&
        static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
        // A text field being edited takes Escape itself: it ends the edit, not the panel.
        const QQuickItem* focus = m_window->activeFocusItem();
        if (focus && focus->inherits("QQuickTextInput"))
            return false;
        hide(); // also when pinned
        return true;
    }
    return QObject::eventFilter(watched, event);
}
