#pragma once

#include <QObject>

class QSocketNotifier;

// SIGTERM and SIGINT end the event loop as a quit from the menu would, so that a stopped
// service (`systemctl --user stop ondril`) or Ctrl-C hands every application's sound back.
// The handler only writes a byte to a pipe; the main thread reads it and quits.
class QuitOnSignal : public QObject {
    Q_OBJECT

public:
    explicit QuitOnSignal(QObject* parent = nullptr);
    ~QuitOnSignal() override;

private:
    static void handle(int signal);

    QSocketNotifier* m_notifier = nullptr;
};
