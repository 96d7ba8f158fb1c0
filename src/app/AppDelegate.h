#pragma once

#include <QObject>

#include <memory>

class InstanceChannel;
class PanelController;
class StatusItemController;

// Made by the process entry and kept for the life of the process. Its construction brings the
// shared objects up in launch order (which queues the restore of the active group), then finishes
// launching before the event loop delivers anything, so that a restored group finds everything
// launch attaches already in place.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    // Headless: the whole engine, and nothing that needs a display.
    explicit AppDelegate(bool headless = false, QObject* parent = nullptr);
    ~AppDelegate() override;

    // Opens the panel when the instance is activated from outside.
    void listenTo(InstanceChannel& channel);

private:
    void applicationDidFinishLaunching();
    void showPanelInTrayCorner();

    bool m_headless = false;
    // Neither exists when headless.
    std::unique_ptr<PanelController> m_panelController;
    std::unique_ptr<StatusItemController> m_statusItem;
};
