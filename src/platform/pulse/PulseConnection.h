#pragma once

#include "platform/AudioHardwareTypes.h"
#include "platform/pulse/PulseMirror.h"

#include <pulse/def.h>
#include <pulse/mainloop-api.h>

#include <QObject>
#include <QTimer>

#include <condition_variable>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_operation;
struct pa_server_info;

// The control connection to the sound server: one pa_context on a pa_threaded_mainloop of its
// own. It subscribes first, then lists everything into a fresh mirror, and from then on re-fetches
// each object an event names. Mirror changes reach the main thread as queued notices.
//
// Operations are synchronous for the caller: issued under the mainloop lock, then waited for
// outside it, at most kOperationTimeoutMs; a timeout, a server error or a lost connection is a
// failure status, never a hang. A server that did not answer in time counts as stalled: every
// later operation fails at once (kAudioHardwareNotRunningError) until the server answers a probe,
// which is announced as a change of the device list. A lost server is reconnected to with back-off
// (100 ms doubling to 2 s, for as long as the program runs); the mirror keeps the old state until
// the new one is complete and then is swapped in whole, announced as one resynchronisation.
//
// pipewire-pulse (0.3.65, Debian 12's) now and then stops announcing devices and defaults to one
// client, for good, right after that client set a default, while it still answers its requests:
// the mirror would go stale without a word. So every kEventCheckMs the connection asks for the
// server's defaults; when two answers in a row name another default than the mirror holds, with
// no announcement between them, the events are lost and the connection starts afresh, as after a
// lost server. (A default written a moment ago differs for a few milliseconds at most.)
class PulseConnection : public QObject {
    Q_OBJECT

public:
    static constexpr int kOperationTimeoutMs = 2000;

    explicit PulseConnection(QObject* parent = nullptr);
    ~PulseConnection() override;

    // Starts the mainloop and waits until the first mirror is complete; false if no server
    // answered within `timeoutMs`. Either way the connection keeps trying in the background.
    bool open(int timeoutMs);
    bool isReady() const { return m_ready.load(std::memory_order_relaxed); }

    // Runs `read` on the mirror under its lock; never waits for the server.
    template <typename Read> auto readMirror(Read read) const {
        std::lock_guard lock(m_mirrorMutex);
        return read(m_mirror);
    }
    // Waits (at most kOperationTimeoutMs) until `holds` is true of the mirror, for what the
    // server's own events bring in; a timeout counts as a stall.
    OSStatus waitForMirror(const std::function<bool(const PulseMirror&)>& holds);
    // Waits at most `ms` until `holds` is true of the mirror, for what the server's session
    // manager does in its own time; false when it did not happen, which is no stall.
    bool settleMirror(const std::function<bool(const PulseMirror&)>& holds, int ms);

    // A volume (one value per channel) or a mute, written to a sink or source in one request;
    // the mirror holds the written value when it returns.
    struct DeviceWrite {
        std::optional<std::vector<std::uint32_t>> volume;
        std::optional<bool> mute;
    };
    OSStatus writeDevice(PulseMirror::Target target, const QString& name, const DeviceWrite& write);
    OSStatus setDefaultSink(const QString& name);
    OSStatus setDefaultSource(const QString& name);
    OSStatus moveSinkInput(std::uint32_t index, const QString& sinkName);
    // Stream volume and mute of one sink-input: the server's own per-app controls.
    OSStatus setSinkInputVolume(std::uint32_t index,
                                const std::vector<std::uint32_t>& channelVolumes);
    OSStatus setSinkInputMute(std::uint32_t index, bool mute);
    // Drops `sinkName` from the stream-restore entries named in `restoreIDs`, so that those
    // streams follow the default; entries that name another sink stay as they are. Without
    // module-stream-restore there is nothing to drop: that is success.
    OSStatus unpinRestoredSinkInputs(const QString& sinkName, const QStringList& restoreIDs);
    OSStatus loadModule(const QString& name, const QString& argument, std::uint32_t& outIndex);
    OSStatus unloadModule(std::uint32_t index);
    // Takes a sink out of the mirror at once, after the caller removed it on the server.
    void forgetSink(const QString& name);
    // Runs `use` under the mainloop lock with the context, or nullptr while there is no ready
    // one, for streams of the caller's own; their callbacks run on the mainloop thread.
    void withContext(const std::function<void(pa_context*)>& use);

    // Shared between a waiting caller and the libpulse callbacks; defined in the source.
    struct Pending;
    struct Request;

signals:
    // Queued to the main thread.
    void notices(const PulseMirror::Notices& notices);

private:
    void takeWrittenDefault(const std::function<void(PulseRecords::Server&)>& write);
    enum class Apply { Sink, Source, Stream, Client, Module, Server };

    // Mainloop thread.
    template <typename Info, auto Convert, auto Upsert>
    static void infoAnswered(pa_context* context, const Info* info, int eol, void* userdata);
    static void serverAnswered(pa_context* context, const pa_server_info* info, void* userdata);
    static void stallEnded(pa_context* context, const pa_server_info* info, void* userdata);
    void askAgainAfterPlaceholder(const PulseRecords::Server& server);
    static void serverRetryDue(pa_mainloop_api* api, pa_time_event* event, const timeval* when,
                               void* userdata);
    static void contextStateChanged(pa_context* context, void* userdata);
    static void subscriptionEvent(pa_context* context, pa_subscription_event_type_t type,
                                  std::uint32_t index, void* userdata);
    static void defaultsChecked(pa_context* context, const pa_server_info* info, void* userdata);
    void beginSynchronisation();
    void fetch(Apply what, std::uint32_t index);
    void applyAndPost(const std::function<PulseMirror::Notices(PulseMirror&)>& apply);
    void listFinished();
    void post(PulseMirror::Notices notices);

    // Main thread.
    bool startContext();
    void connectionLost();
    void scheduleReconnect();
    void checkEvents();
    void startAfresh(); // the server stopped announcing changes
    void beginStall();  // under the mainloop lock
    OSStatus runOperation(const std::function<pa_operation*(Request*)>& issue,
                          std::uint32_t* outIndex = nullptr, std::shared_ptr<Pending> pending = {});

    pa_threaded_mainloop* m_mainloop = nullptr;
    pa_context* m_context = nullptr;
    std::atomic<bool> m_ready{false};
    std::atomic<bool> m_stalled{false};
    std::atomic<bool> m_closing{false};
    // How often a placeholder default is asked about again; touched on the main loop's thread only.
    // The budget is per change, and long enough for a session manager on a loaded machine.
    static constexpr int kPlaceholderRetries = 50;
    static constexpr pa_usec_t kPlaceholderRetryUs = 100 * 1000;
    int m_placeholderRetries = 0;
    bool m_placeholderRetryPending = false; // one timer at a time
    int m_openLists = 0;                    // mainloop thread, while synchronising

    mutable std::mutex m_mirrorMutex;
    std::condition_variable m_mirrorChanged;
    PulseMirror m_mirror;
    std::optional<PulseMirror> m_staging; // mainloop thread only, while synchronising

    std::mutex m_openMutex;
    std::condition_variable m_openCondition;
    bool m_openFinished = false;

    QTimer m_reconnectTimer;
    int m_backoffMs = 100;

    static constexpr int kEventCheckMs = 1000;
    QTimer m_eventCheckTimer;
    int m_unannouncedDefaults = 0; // mainloop thread: answers in a row that the mirror contradicts
};
