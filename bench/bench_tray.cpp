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
#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
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
    QTimer::singleShot(5000, &loop, &QEventLoop::quit);
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
