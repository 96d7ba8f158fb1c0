#pragma once

#include "ui/panel/PanelPlacement.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPoint>

#include <memory>
#include <optional>

class AppAudioManager;
class AppSettings;
class AppsCardModel;
class AudioDeviceManager;
class GroupManager;
class LevelMeter;
class MenuBarController;
class QQuickView;
class RunningApplications;

// Owns the panel: a frameless, translucent, always-on-top tool window made once, hosting
// MenuBarView. It opens at the tray's click point, follows its content's height with the tray
// side's edge fixed, and closes on click-away (the window losing activation, unless
// "ondril.pinPanel"), on Escape, on "ondril.closePanel" and on a second click of the tray icon.
// The meters run only while it is open: the level meter, and the app audio manager's levels and
// play-state listeners.
class PanelController : public QObject {
    Q_OBJECT

public:
    static constexpr int reopenGuardMs = 200;

    PanelController(AudioDeviceManager& audio, GroupManager& groups, AppSettings& settings,
                    AppAudioManager& appAudio, LevelMeter& meter, RunningApplications& applications,
                    QObject* parent = nullptr);
    ~PanelController() override;

    // Opens the panel at the tray icon's click point. Does not test whether it is open already.
    void show(QPoint under);
    void hide();
    bool isVisible() const;
    void setContentHeight(double height);

    double contentHeight() const { return m_contentHeight; }
    // Time since the last close; none before the first.
    std::optional<qint64> msSinceLastClose() const;
    // The toggle rule of the tray icon and the hot key: closes an open panel; opens a closed one
    // only if more than 0.2 s have passed since it closed.
    static bool mayReopen(std::optional<qint64> msSinceLastClose);

    QQuickView* window() const { return m_window.get(); }
    MenuBarController& menuBar() const { return *m_menuBar; }

signals:
    void shown();
    void hidden();

private slots:
    void onHeightReported(double height);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void onActiveChanged();
    std::optional<PanelPlacement::Placement> reposition(QPoint under) const;

    AudioDeviceManager& m_audio;
    AppSettings& m_settings;
    AppAudioManager& m_appAudio;
    LevelMeter& m_meter;
    AppsCardModel* m_appsCard;
    std::unique_ptr<MenuBarController> m_menuBar;
    std::unique_ptr<QQuickView> m_window;
    std::optional<PanelPlacement::Placement> m_placement;
    QElapsedTimer m_lastCloseAt; // invalid until the first close
    double m_contentHeight = 400;
    bool m_wasActive = false;
};
