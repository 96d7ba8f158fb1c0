#pragma once

#include <QObject>

#include <memory>

class PanelController;
class StatusItemController;

// Made by the process entry and kept for the life of the process. Its construction brings the
// shared objects up in launch order; the rest of the launch runs once the event loop turns.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

private:
    void applicationDidFinishLaunching();

    std::unique_ptr<PanelController> m_panelController;
    std::unique_ptr<StatusItemController> m_statusItem;
};
