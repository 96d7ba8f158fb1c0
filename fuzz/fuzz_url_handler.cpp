// "ondril:" URLs as launchers, scripts and other programs send them, through the whole handler
// over the simulated service: no input crashes, and whatever a URL sets stays in range, finite
// and storable.
#include "app/AppSettings.h"
#include "app/NotificationCenter.h"
#include "appaudio/AppAudioManager.h"
#include "configs/ConfigManager.h"
#include "control/URLHandler.h"
#include "devices/AudioDeviceManager.h"
#include "groups/GroupManager.h"
#include "groups/OutputGroupCodec.h"
#include "platform/SystemSleepMonitor.h"
#include "platform/UserDefaults.h"
#include "platform/simulated/SimulatedAudioHardware.h"
#include "platform/simulated/SimulatedRunningApplications.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <QUuid>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace {

const QString player = QStringLiteral("org.example.Player");

// One program's worth of shared objects, kept across inputs as a running instance keeps them.
struct Engine {
    QTemporaryDir directory{QStringLiteral("/dev/shm/ondril-fuzz-XXXXXX")};
    SimulatedAudioHardware hardware;
    UserDefaults defaults{directory.filePath(QStringLiteral("defaults.json"))};
    NotificationCenter center;
    AppSettings settings{defaults, center};
    SystemSleepMonitor sleepMonitor;
    SimulatedRunningApplications applications;
    std::unique_ptr<AudioDeviceManager> audio;
    std::unique_ptr<GroupManager> groups;
    std::unique_ptr<AppAudioManager> apps;
    std::unique_ptr<ConfigManager> configs;

    Engine() {
        const auto add = [this](const char* uid, const char* name) {
            SimulatedAudioHardware::DeviceSpec spec;
            spec.uid = QString::fromLatin1(uid);
            spec.name = QString::fromLatin1(name);
            return hardware.addDevice(spec);
        };
        hardware.setDefaultOutputDevice(add("builtin:Ondril:Speakers:0:1,2", "Speakers"));
        add("usb:Acme:LeftDisplay:1001:1,2", "Left Display");
        add("usb:Acme:RightDisplay:1002:1,2", "Right Display");
        applications.setOwnBundleIdentifier(QStringLiteral("com.kestrivane.ondril"));
        applications.addProcess(4100, {player, std::nullopt, 0});
        hardware.addProcess({4100, player, true});

        audio = std::make_unique<AudioDeviceManager>(hardware);
        groups = std::make_unique<GroupManager>(*audio, settings, sleepMonitor);
        apps = std::make_unique<AppAudioManager>(*audio, *groups, settings, applications);
        configs = std::make_unique<ConfigManager>(*audio, *groups, *apps, settings);
        OutputGroup both;
        both.id = QUuid::fromString(QStringLiteral("{6F1A8E2C-0B5D-4C3E-9A7F-2D4B6C8E0A1F}"));
        both.name = QStringLiteral("Both Displays");
        both.memberUIDs = {QStringLiteral("usb:Acme:LeftDisplay:1001:1,2"),
                           QStringLiteral("usb:Acme:RightDisplay:1002:1,2")};
        both.masterUID = both.memberUIDs.first();
        groups->setGroups({both});
        groups->saveGroups();
        settle();
    }

    static void settle() {
        for (int round = 0; round < 5; ++round) {
            QCoreApplication::sendPostedEvents();
            QCoreApplication::processEvents();
        }
    }

    void check() const {
        for (const OutputGroup& group : groups->groups())
            if (!std::isfinite(group.masterVolume) || group.masterVolume < 0 ||
                group.masterVolume > 1)
                std::abort();
        if (!OutputGroupCodec::encode(groups->groups()))
            std::abort();
        for (const AppAudioPrefs& prefs : apps->prefs())
            if (!std::isfinite(prefs.volume) || prefs.volume < 0 || prefs.volume > 4)
                std::abort();
    }
};

Engine* engine = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    new QCoreApplication(*argc, *argv);
    engine = new Engine;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QString url = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    URLHandler(*engine->groups, *engine->audio, *engine->apps, *engine->configs).handleURL(url);
    Engine::settle();
    engine->check();
    return 0;
}
