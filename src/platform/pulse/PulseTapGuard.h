#pragma once

#include <QProcess>
#include <QString>

#include <cstdint>

// Shortens what a crash of Ondril leaves behind. A process tap that Ondril never destroyed (a
// crash, kill -9) keeps the application's streams in a null sink nobody records: the application
// is silent. The guard is this executable started again as a small process of its own. Its
// standard input is a pipe whose other end only Ondril holds: Ondril writes on it where each
// stream a tap takes played before, and the kernel closes it however Ondril ends. The guard then
// clears the tap sinks that carry Ondril's pid, sending each stream back where it played: the
// application is heard as before a moment after the crash. On a clean quit Ondril has destroyed
// its taps already and ends the guard itself.
class PulseTapGuard {
public:
    // The command line that makes this executable a guard: `ondril --tap-guard PID`.
    static inline const QString kArgument = QStringLiteral("--tap-guard");

    // Starts `program` as the guard of this process.
    explicit PulseTapGuard(const QString& program);
    ~PulseTapGuard();
    // A tap took sink-input `index`, which played on `sink`.
    void noteHome(std::uint32_t index, const QString& sink);
    PulseTapGuard(const PulseTapGuard&) = delete;
    PulseTapGuard& operator=(const PulseTapGuard&) = delete;

    // The guard's own life, in the process started as one: reads the homes until the standard
    // input closes, then clears what `ownerPid` left. Needs an application object; gives the exit
    // status.
    static int run(std::int32_t ownerPid);

private:
    QProcess m_process;
};
