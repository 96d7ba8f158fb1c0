#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/AppAudioManager.h"
#include "appaudio/LevelMeter.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"
#include "platform/simulated/SimulatedRunningApplications.h"
#include "platform/tray/StatusNotifierItem.h"
#include "ui/StatusItemController.h"
#include "ui/panel/PanelController.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QGuiApplication>
#include <QMap>
#include <QQuickView>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <benchmark/benchmark.h>

// The desktop's side: a StatusNotifierWatcher that takes every registration.
class BenchWatcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")

public slots:
    void RegisterStatusNotifierItem(const QString&) {}
};

namespace {

QDBusConnection hostBus() {
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("host"));
}

// Runs the event loop until `signal` of `sender` fires, at most 5 s; false on timeout.
template <typename Sender, typename Signal> bool waitFor(Sender* sender, Signal signal) {
    QEventLoop loop;
    bool fired = false;
    QObject::connect(sender, signal, &loop, [&] {
        fired = true;
        loop.quit();
    });
    // A timer of this call's own, gone with it: none is left to fire into later measurements.
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    limit.start(5000);
    loop.exec();
    return fired;
}

// Everything the tray needs, on the simulated service with a private settings file.
struct Stack {
    QTemporaryDir directory;
    SimulatedAudioHardware hardware;
    UserDefaults defaults{directory.filePath(QStringLiteral("defaults.json"))};
    NotificationCenter center;
    AppSettings settings{defaults, center};
    AudioDeviceManager audio{hardware};
    GroupManager groups{audio, settings};
    SimulatedRunningApplications applications;
    AppAudioManager apps{audio, groups, settings, applications};
    LevelMeter meter{audio};
};

void BM_StartToTrayRegistration(benchmark::State& state) {
    Stack stack;
    for (auto _ : state) {
        QElapsedTimer timer;
        timer.start();
        PanelController panel(stack.audio, stack.groups, stack.settings, stack.apps, stack.meter,
                              stack.applications);
        StatusItemController tray(stack.groups, stack.settings, panel,
                                  QDBusConnection::sessionBus());
        tray.start();
        if (!waitFor(&tray, &StatusItemController::registered)) {
            state.SkipWithError("the watcher never answered");
            return;
        }
        state.SetIterationTime(double(timer.nsecsElapsed()) / 1e9);
    }
    state.SetLabel("panel and status item made, until the watcher has taken the item");
}
BENCHMARK(BM_StartToTrayRegistration)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

void BM_ActivationToFirstFrame(benchmark::State& state) {
    Stack stack;
    PanelController panel(stack.audio, stack.groups, stack.settings, stack.apps, stack.meter,
                          stack.applications);
    StatusItemController tray(stack.groups, stack.settings, panel, QDBusConnection::sessionBus());
    tray.start();
    waitFor(&tray, &StatusItemController::registered);
    for (auto _ : state) {
        panel.hide();
        // Past the reopen guard, outside the measurement.
        QThread::msleep(PanelController::reopenGuardMs + 20);
        QElapsedTimer timer;
        timer.start();
        QDBusMessage call = QDBusMessage::createMethodCall(
            StatusNotifierItem::serviceName(), StatusNotifierItem::objectPath,
            StatusNotifierItem::interfaceName, QStringLiteral("Activate"));
        call << 1000 << 10;
        hostBus().asyncCall(call);
        if (!waitFor(panel.window(), &QQuickWindow::frameSwapped)) {
            state.SkipWithError("the panel drew no frame");
            return;
        }
        state.SetIterationTime(double(timer.nsecsElapsed()) / 1e9);
    }
    state.SetLabel("Activate on the bus until the panel's first frame is on screen");
}
BENCHMARK(BM_ActivationToFirstFrame)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10);

// A field of /proc/<...>/status as a number ("VmRSS:  1234 kB" gives 1234).
qint64 statusField(const QString& statusPath, const QByteArray& field) {
    QFile file(statusPath);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').value(0).toLongLong();
    return 0;
}

double residentMiB() {
    return double(statusField(QStringLiteral("/proc/self/status"), "VmRSS")) / 1024;
}

// Every time any thread of the process went to sleep and was woken, or was preempted.
qint64 contextSwitches() {
    qint64 switches = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString status = tasks.filePath(task + QStringLiteral("/status"));
        switches += statusField(status, "voluntary_ctxt_switches") +
                    statusField(status, "nonvoluntary_ctxt_switches");
    }
    return switches;
}

void runEventLoopFor(int ms) {
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// A started tray with its panel made and registered with the watcher.
struct StartedTray {
    Stack stack;
    PanelController panel{stack.audio, stack.groups, stack.settings,
                          stack.apps,  stack.meter,  stack.applications};
    StatusItemController tray{stack.groups, stack.settings, panel, QDBusConnection::sessionBus()};

    bool start() {
        tray.start();
        return waitFor(&tray, &StatusItemController::registered);
    }
};

void BM_ResidentMemory(benchmark::State& state) {
    StartedTray started;
    if (!started.start()) {
        state.SkipWithError("the watcher never answered");
        return;
    }
    for (auto _ : state) {
        runEventLoopFor(500);
        state.counters["afterStartMiB"] = residentMiB();
        started.panel.show(QPoint(1000, 10));
        waitFor(started.panel.window(), &QQuickWindow::frameSwapped);
        runEventLoopFor(500);
        state.counters["panelOpenMiB"] = residentMiB();
        started.panel.hide();
    }
    state.SetLabel("resident set after start, then with the panel shown");
}
BENCHMARK(BM_ResidentMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

// Counts the timer events the main thread handles while idle, by the class of their owner.
class TimerEventCounter : public QObject {
public:
    QMap<QString, int> counts;

    bool eventFilter(QObject* receiver, QEvent* event) override {
        if (event->type() == QEvent::Timer) {
            const QObject* owner = qobject_cast<QTimer*>(receiver) && receiver->parent()
                                       ? receiver->parent()
                                       : receiver;
            ++counts[QString::fromLatin1(owner->metaObject()->className())];
        }
        return false;
    }
};

void BM_IdleWakeups(benchmark::State& state) {
    constexpr int idleMs = 10000;
    StartedTray started;
    if (!started.start()) {
        state.SkipWithError("the watcher never answered");
        return;
    }
    // Once open and closed, so that everything the panel starts has had its chance to stop.
    started.panel.show(QPoint(1000, 10));
    waitFor(started.panel.window(), &QQuickWindow::frameSwapped);
    started.panel.hide();
    runEventLoopFor(1000);
    for (auto _ : state) {
        TimerEventCounter timers;
        QCoreApplication::instance()->installEventFilter(&timers);
        const qint64 before = contextSwitches();
        runEventLoopFor(idleMs); // its own timer is one of the wake-ups counted
        const qint64 after = contextSwitches();
        QCoreApplication::instance()->removeEventFilter(&timers);
        state.counters["wakeupsPerSecond"] = double(after - before) * 1000 / idleMs;
        QStringList owners;
        for (auto it = timers.counts.cbegin(); it != timers.counts.cend(); ++it)
            owners << QStringLiteral("%1 x%2").arg(it.key()).arg(it.value());
        state.SetLabel(("panel closed, 10 s; main-thread timer events: " +
                        (owners.isEmpty() ? QStringLiteral("none") : owners.join(", ")))
                           .toStdString());
    }
}
BENCHMARK(BM_IdleWakeups)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    BenchWatcher watcher;
    QDBusConnection host = hostBus();
    host.registerObject(StatusNotifierItem::watcherPath, &watcher, QDBusConnection::ExportAllSlots);
    if (!host.registerService(StatusNotifierItem::watcherService)) {
        std::fprintf(stderr, "bench_tray: no session bus to stand in for the desktop on\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

#include "bench_tray.moc"
