#pragma once

#include <QObject>

#include <csignal>

class QSocketNotifier;

// Turns SIGTERM and SIGINT (log-out, `kill`, Ctrl-C) into an ordinary queued quit of the
// application, so that everything hooked to aboutToQuit runs as after "Quit Ondril". The handler
// only writes a byte to a pipe; the main loop reads it. While it lives it owns both signals; on
// destruction the previous handlers come back.
class QuitSignals : public QObject {
    Q_OBJECT

public:
    explicit QuitSignals(QObject* parent = nullptr);
    ~QuitSignals() override;
    QuitSignals(const QuitSignals&) = delete;
    QuitSignals& operator=(const QuitSignals&) = delete;

private:
    static void handle(int signal);

    QSocketNotifier* m_notifier = nullptr;
    struct sigaction m_previousTerm {};
    struct sigaction m_previousInt {};
};
