#include "platform/QuitSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The pipe's ends; the write end is all a signal handler may touch.
int pipeEnds[2] = {-1, -1};

} // namespace

QuitSignals::QuitSignals(QObject* parent)
    : QObject(parent) {
    if (::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0) {
        qWarning("no pipe for SIGTERM and SIGINT; they end Ondril without a clean quit");
        return;
    }
    m_notifier = new QSocketNotifier(pipeEnds[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [] {
        char byte = 0;
        while (::read(pipeEnds[0], &byte, 1) == 1) {
        }
        QCoreApplication::quit();
    });

    struct sigaction action {};
    action.sa_handler = &QuitSignals::handle;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, &m_previousTerm);
    sigaction(SIGINT, &action, &m_previousInt);
}

QuitSignals::~QuitSignals() {
    if (!m_notifier)
        return;
    sigaction(SIGTERM, &m_previousTerm, nullptr);
    sigaction(SIGINT, &m_previousInt, nullptr);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);
    pipeEnds[0] = pipeEnds[1] = -1;
}

void QuitSignals::handle(int) {
    const char byte = 1;
    // A full pipe already holds a quit; nothing else is safe to do here.
    [[maybe_unused]] const auto written = ::write(pipeEnds[1], &byte, 1);
}
