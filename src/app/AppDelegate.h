#pragma once

#include <QObject>

// Made by the process entry and kept for the life of the process. Its construction brings the
// shared objects up in launch order; the rest of the launch runs once the event loop turns.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    // Headless: the whole engine, and nothing that needs a display.
    explicit AppDelegate(bool headless = false, QObject* parent = nullptr);

private:
    void applicationDidFinishLaunching();

    bool m_headless = false;
};
