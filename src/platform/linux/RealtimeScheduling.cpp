#include "platform/linux/RealtimeScheduling.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QLoggingCategory>

#include <sched.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <utility>

Q_LOGGING_CATEGORY(lcRealtimeScheduling, "com.kestrivane.ondril.RealtimeScheduling", QtInfoMsg)

namespace {

// RealtimeKit grants real-time scheduling only to a process that bounds how long a real-time
// thread may run without blocking; the audio thread blocks every few milliseconds.
constexpr rlim_t kRealtimeBudgetUsec = 200000;

// Once per run: every boosted path asks again, and the reason does not change.
void sayOrdinaryPriority(const QString& reason) {
    static bool said = false;
    if (!std::exchange(said, true))
        qCInfo(lcRealtimeScheduling, "the audio thread runs with ordinary priority: %s",
               qPrintable(reason));
}

void askRealtimeKit(pid_t threadId) {
    rlimit budget{kRealtimeBudgetUsec, kRealtimeBudgetUsec};
    setrlimit(RLIMIT_RTTIME, &budget);
    QDBusMessage request = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.RealtimeKit1"),
        QStringLiteral("/org/freedesktop/RealtimeKit1"),
        QStringLiteral("org.freedesktop.RealtimeKit1"), QStringLiteral("MakeThreadRealtime"));
    request << quint64(threadId) << quint32(RealtimeScheduling::kPriority);
    auto* watcher =
        new QDBusPendingCallWatcher(QDBusConnection::systemBus().asyncCall(request, 2000));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished,
                     [](QDBusPendingCallWatcher* call) {
                         if (call->isError())
                             sayOrdinaryPriority(call->error().message());
                         call->deleteLater();
                     });
}

} // namespace

void RealtimeScheduling::promote(pid_t threadId) {
    const sched_param parameters{kPriority};
    if (sched_setscheduler(threadId, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0)
        return;
    if (errno == EPERM)
        askRealtimeKit(threadId);
    else
        sayOrdinaryPriority(QString::fromLocal8Bit(std::strerror(errno)));
}
