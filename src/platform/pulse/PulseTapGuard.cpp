#include "platform/pulse/PulseTapGuard.h"

#include "platform/pulse/PulseConnection.h"
#include "platform/pulse/PulseTap.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace {
// The server was there a moment ago; if it does not answer within this, it went down with Ondril
// and took the tap sinks with it.
constexpr int kConnectTimeoutMs = 3000;
} // namespace

PulseTapGuard::PulseTapGuard(const QString& program) {
    // Its standard input is the pipe of the homes; its output has nothing to say.
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QObject::connect(&m_process, &QProcess::errorOccurred, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            qWarning("no guard for boosted apps (%s): after a crash they stay silent until "
                     "Ondril starts again",
                     qPrintable(m_process.errorString()));
    });
    m_process.start(program, {kArgument, QString::number(::getpid())});
}

PulseTapGuard::~PulseTapGuard() {
    m_process.kill();
    m_process.waitForFinished(1000);
}

// One line a stream: its index, a tab, the sink's name (server names hold neither).
void PulseTapGuard::noteHome(std::uint32_t index, const QString& sink) {
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.write(QStringLiteral("%1\t%2\n").arg(index).arg(sink).toUtf8());
}

int PulseTapGuard::run(std::int32_t ownerPid) {
    // Ctrl+C in a terminal and the terminal's closing reach the whole process group. Ondril quits
    // cleanly on them and then ends the guard; should it not, the guard must still be there.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    QByteArray notes;
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got > 0)
            notes.append(chunk, got);
        else if (got == 0 || errno != EINTR)
            break;
    }
    PulseTap::Homes homes;
    for (const QByteArray& line : notes.split('\n')) {
        const qsizetype tab = line.indexOf('\t');
        bool isIndex = false;
        const std::uint32_t index = line.left(tab).toUInt(&isIndex);
        if (tab > 0 && isIndex)
            homes[index] = QString::fromUtf8(line.mid(tab + 1));
    }

    PulseConnection connection;
    if (!connection.open(kConnectTimeoutMs))
        return 1;
    PulseTap::clearLeftovers(connection, ownerPid, homes);
    return 0;
}
