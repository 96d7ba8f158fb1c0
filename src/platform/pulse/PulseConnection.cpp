#include "platform/pulse/PulseConnection.h"

#include <pulse/context.h>
#include <pulse/ext-stream-restore.h>
#include <pulse/introspect.h>
#include <pulse/rtclock.h>
#include <pulse/subscribe.h>
#include <pulse/thread-mainloop.h>

#include <chrono>
#include <condition_variable>
#include <string>
#include <string_view>

// What a waiting caller and the callback on the mainloop thread share.
struct PulseConnection::Pending {
    struct RestoreEntry {
        std::string name;
        std::string device;
        pa_channel_map channelMap{};
        pa_cvolume volume{};
        int mute = 0;
    };

    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    bool success = false;
    bool cancelled = false; // by a timeout or a lost connection: no answer came
    std::uint32_t index = PA_INVALID_INDEX;
    std::vector<RestoreEntry> pinnedEntries;

    void finish(bool ok, std::uint32_t resultIndex = PA_INVALID_INDEX, bool wasCancelled = false) {
        std::lock_guard lock(mutex);
        if (done)
            return;
        done = true;
        success = ok;
        cancelled = wasCancelled;
        index = resultIndex;
        condition.notify_all();
    }
};

// The userdata of one request. Deleted by its callback, or, when its operation is cancelled (a
// timeout, a lost connection) and no callback comes, by the operation's state callback.
struct PulseConnection::Request {
    PulseConnection* self = nullptr;
    std::shared_ptr<Pending> pending;
    bool listing = false;
    bool found = false;
};

namespace {

using Request = PulseConnection::Request;

template <typename RequestType>
void finishRequest(RequestType* request, bool ok, std::uint32_t index = PA_INVALID_INDEX) {
    if (request->pending)
        request->pending->finish(ok, index);
    delete request;
}

void requestStateChanged(pa_operation* operation, void* userdata) {
    if (pa_operation_get_state(operation) != PA_OPERATION_CANCELLED)
        return; // done: the answer's callback has already freed the request
    auto* request = static_cast<Request*>(userdata);
    if (request->pending)
        request->pending->finish(false, PA_INVALID_INDEX, true);
    delete request;
}

// Hands `request` to `operation` for good: freed by the answer or by the cancellation, and at
// once when there is no operation.
pa_operation* track(pa_operation* operation, Request* request) {
    if (!operation) {
        delete request;
        return nullptr;
    }
    pa_operation_set_state_callback(operation, &requestStateChanged, request);
    return operation;
}

} // namespace

PulseConnection::PulseConnection(QObject* parent)
    : QObject(parent) {
    m_reconnectTimer.setSingleShot(true);
    connect(&m_reconnectTimer, &QTimer::timeout, this, [this] {
        if (!startContext())
            scheduleReconnect();
    });
    m_eventCheckTimer.setInterval(kEventCheckMs);
    connect(&m_eventCheckTimer, &QTimer::timeout, this, &PulseConnection::checkEvents);
}

PulseConnection::~PulseConnection() {
    m_closing = true;
    m_reconnectTimer.stop();
    m_eventCheckTimer.stop();
    if (!m_mainloop)
        return;
    pa_threaded_mainloop_stop(m_mainloop);
    if (m_context) {
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
    }
    pa_threaded_mainloop_free(m_mainloop);
}

bool PulseConnection::open(int timeoutMs) {
    m_mainloop = pa_threaded_mainloop_new();
    if (!m_mainloop)
        return false;
    pa_threaded_mainloop_set_name(m_mainloop, "ondril-pulse");
    if (pa_threaded_mainloop_start(m_mainloop) < 0)
        return false;
    m_eventCheckTimer.start();
    if (!startContext()) {
        scheduleReconnect();
        return false;
    }
    std::unique_lock lock(m_openMutex);
    m_openCondition.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [this] { return m_openFinished; });
    return isReady();
}

bool PulseConnection::startContext() {
    pa_threaded_mainloop_lock(m_mainloop);
    if (m_context) {
        // The old context's end must not count as another loss.
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
    }
    m_staging.reset();
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_mainloop), "Ondril");
    bool started = m_context != nullptr;
    if (started) {
        pa_context_set_state_callback(m_context, &PulseConnection::contextStateChanged, this);
        // Never spawn a server of our own: no answer means no server.
        started = pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0;
    }
    pa_threaded_mainloop_unlock(m_mainloop);
    return started;
}

void PulseConnection::contextStateChanged(pa_context* context, void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        self->beginSynchronisation();
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED: {
        self->m_ready = false;
        {
            std::lock_guard lock(self->m_openMutex);
            self->m_openFinished = true;
        }
        self->m_openCondition.notify_all();
        if (!self->m_closing)
            QMetaObject::invokeMethod(
                self, [self] { self->connectionLost(); }, Qt::QueuedConnection);
        break;
    }
    default:
        break;
    }
}

void PulseConnection::connectionLost() {
    if (m_closing)
        return;
    scheduleReconnect();
}

void PulseConnection::checkEvents() {
    if (!isReady() || m_stalled)
        return;
    pa_threaded_mainloop_lock(m_mainloop);
    // Its userdata is `this`, which outlives the context: a cancelled check leaves nothing behind.
    if (pa_operation* check = pa_context_get_server_info(m_context, &defaultsChecked, this))
        pa_operation_unref(check);
    pa_threaded_mainloop_unlock(m_mainloop);
}

void PulseConnection::defaultsChecked(pa_context*, const pa_server_info* info, void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    if (!info || self->m_staging)
        return;
    const auto server = PulseRecords::fromServer(*info);
    const auto contradicts = [](const QString& answer, const QString& held) {
        return !answer.isEmpty() && !PulseMirror::isPlaceholderName(answer) && answer != held;
    };
    const bool contradicted = self->readMirror([&](const PulseMirror& mirror) {
        return contradicts(server.defaultSink, mirror.server().defaultSink) ||
               contradicts(server.defaultSource, mirror.server().defaultSource);
    });
    self->m_unannouncedDefaults = contradicted ? self->m_unannouncedDefaults + 1 : 0;
    if (self->m_unannouncedDefaults >= 2) {
        self->m_unannouncedDefaults = 0;
        QMetaObject::invokeMethod(
            self, [self] { self->startAfresh(); }, Qt::QueuedConnection);
    }
}

void PulseConnection::startAfresh() {
    if (m_closing || !isReady())
        return;
    qWarning("the sound server stopped announcing changes; connecting to it again");
    m_ready = false;
    if (!startContext())
        scheduleReconnect();
}

void PulseConnection::scheduleReconnect() {
    if (m_closing || m_reconnectTimer.isActive())
        return;
    m_reconnectTimer.start(m_backoffMs);
    m_backoffMs = std::min(m_backoffMs * 2, 2000);
}

template <typename Info, auto Convert, auto Upsert>
void PulseConnection::infoAnswered(pa_context*, const Info* info, int eol, void* userdata) {
    auto* request = static_cast<Request*>(userdata);
    if (info) {
        request->found = true;
        const auto record = Convert(*info);
        request->self->applyAndPost([&](PulseMirror& mirror) { return (mirror.*Upsert)(record); });
    }
    if (!eol)
        return;
    if (request->listing)
        request->self->listFinished();
    finishRequest(request, request->found);
}

void PulseConnection::serverAnswered(pa_context*, const pa_server_info* info, void* userdata) {
    auto* request = static_cast<Request*>(userdata);
    if (info) {
        const auto server = PulseRecords::fromServer(*info);
        request->self->applyAndPost([&](PulseMirror& mirror) { return mirror.setServer(server); });
        request->self->askAgainAfterPlaceholder(server);
    }
    if (request->listing)
        request->self->listFinished();
    finishRequest(request, info != nullptr);
}

// PipeWire answers "@DEFAULT_SINK@" while its session manager settles a default, and may send no
// further event once it has settled: ask again shortly, a bounded number of times, so that the
// mirror learns the settled name.
void PulseConnection::askAgainAfterPlaceholder(const PulseRecords::Server& server) {
    const bool placeholder = PulseMirror::isPlaceholderName(server.defaultSink) ||
                             PulseMirror::isPlaceholderName(server.defaultSource);
    if (!placeholder) {
        m_placeholderRetries = 0;
        return;
    }
    if (m_placeholderRetryPending || m_placeholderRetries >= kPlaceholderRetries || !m_context)
        return;
    ++m_placeholderRetries;
    m_placeholderRetryPending = true;
    pa_context_rttime_new(m_context, pa_rtclock_now() + kPlaceholderRetryUs, &serverRetryDue, this);
}

void PulseConnection::serverRetryDue(pa_mainloop_api* api, pa_time_event* event, const timeval*,
                                     void* userdata) {
    api->time_free(event);
    auto* self = static_cast<PulseConnection*>(userdata);
    self->m_placeholderRetryPending = false;
    if (self->isReady())
        self->fetch(Apply::Server, 0);
}

// One callback per kind of object, for a list and for a single object alike.
#define ONDRIL_ANSWER(info, convert, upsert)                                                       \
    &PulseConnection::infoAnswered<info, &PulseRecords::convert, &PulseMirror::upsert>

void PulseConnection::beginSynchronisation() {
    // Subscribe first, then list: an object that changes while the lists are under way is
    // fetched again after them, into the same fresh mirror.
    pa_context_set_subscribe_callback(m_context, &PulseConnection::subscriptionEvent, this);
    const auto mask = pa_subscription_mask_t(
        PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK_INPUT |
        PA_SUBSCRIPTION_MASK_CLIENT | PA_SUBSCRIPTION_MASK_MODULE | PA_SUBSCRIPTION_MASK_SERVER);
    if (pa_operation* operation = pa_context_subscribe(m_context, mask, nullptr, nullptr))
        pa_operation_unref(operation);
    m_staging.emplace();
    m_openLists = 6;
    auto list = [this](auto get, auto answered) {
        auto* request = new Request{this, nullptr, true, false};
        return track(get(m_context, answered, request), request);
    };
    pa_operation* operations[] = {
        list(pa_context_get_server_info, &serverAnswered),
        list(pa_context_get_module_info_list,
             ONDRIL_ANSWER(pa_module_info, fromModule, upsertModule)),
        list(pa_context_get_sink_info_list, ONDRIL_ANSWER(pa_sink_info, fromSink, upsertSink)),
        list(pa_context_get_source_info_list,
             ONDRIL_ANSWER(pa_source_info, fromSource, upsertSource)),
        list(pa_context_get_client_info_list,
             ONDRIL_ANSWER(pa_client_info, fromClient, upsertClient)),
        list(pa_context_get_sink_input_info_list,
             ONDRIL_ANSWER(pa_sink_input_info, fromSinkInput, upsertStream)),
    };
    for (pa_operation* operation : operations) {
        if (operation)
            pa_operation_unref(operation);
        else
            listFinished(); // the context is failing; its end starts a reconnection anyway
    }
}

void PulseConnection::listFinished() {
    if (--m_openLists > 0 || !m_staging)
        return;
    {
        std::lock_guard lock(m_mirrorMutex);
        m_mirror = std::move(*m_staging);
    }
    m_staging.reset();
    m_mirrorChanged.notify_all();
    m_stalled = false;
    m_ready = true;
    {
        std::lock_guard lock(m_openMutex);
        m_openFinished = true;
    }
    m_openCondition.notify_all();
    QMetaObject::invokeMethod(
        this, [this] { m_backoffMs = 100; }, Qt::QueuedConnection);
    post(PulseMirror::resynchronisation());
}

void PulseConnection::subscriptionEvent(pa_context*, pa_subscription_event_type_t type,
                                        std::uint32_t index, void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    const unsigned facility = unsigned(type) & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const bool removed =
        (unsigned(type) & PA_SUBSCRIPTION_EVENT_TYPE_MASK) == PA_SUBSCRIPTION_EVENT_REMOVE;
    std::optional<Apply> what;
    PulseMirror::Notices (PulseMirror::*remove)(std::uint32_t) = nullptr;
    switch (facility) {
    case PA_SUBSCRIPTION_EVENT_SINK:
        what = Apply::Sink;
        remove = &PulseMirror::removeSink;
        break;
    case PA_SUBSCRIPTION_EVENT_SOURCE:
        what = Apply::Source;
        remove = &PulseMirror::removeSource;
        break;
    case PA_SUBSCRIPTION_EVENT_SINK_INPUT:
        what = Apply::Stream;
        remove = &PulseMirror::removeStream;
        break;
    case PA_SUBSCRIPTION_EVENT_CLIENT:
        what = Apply::Client;
        remove = &PulseMirror::removeClient;
        break;
    case PA_SUBSCRIPTION_EVENT_MODULE:
        what = Apply::Module;
        remove = &PulseMirror::removeModule;
        break;
    case PA_SUBSCRIPTION_EVENT_SERVER:
        // A new change gets a wait of its own: an earlier one that never settled (a session
        // manager slow to start) must not leave this one unasked.
        self->m_placeholderRetries = 0;
        self->m_unannouncedDefaults = 0;
        what = Apply::Server;
        break;
    default:
        return;
    }
    if (!removed)
        self->fetch(*what, index); // "new" and "change" alike: the object as it is now
    else if (remove)
        self->applyAndPost([&](PulseMirror& mirror) { return (mirror.*remove)(index); });
}

void PulseConnection::fetch(Apply what, std::uint32_t index) {
    auto* request = new Request{this, nullptr, false, false};
    pa_operation* operation = nullptr;
    switch (what) {
    case Apply::Sink:
        operation = pa_context_get_sink_info_by_index(
            m_context, index, ONDRIL_ANSWER(pa_sink_info, fromSink, upsertSink), request);
        break;
    case Apply::Source:
        operation = pa_context_get_source_info_by_index(
            m_context, index, ONDRIL_ANSWER(pa_source_info, fromSource, upsertSource), request);
        break;
    case Apply::Stream:
        operation = pa_context_get_sink_input_info(
            m_context, index, ONDRIL_ANSWER(pa_sink_input_info, fromSinkInput, upsertStream),
            request);
        break;
    case Apply::Client:
        operation = pa_context_get_client_info(
            m_context, index, ONDRIL_ANSWER(pa_client_info, fromClient, upsertClient), request);
        break;
    case Apply::Module:
        operation = pa_context_get_module_info(
            m_context, index, ONDRIL_ANSWER(pa_module_info, fromModule, upsertModule), request);
        break;
    case Apply::Server:
        operation = pa_context_get_server_info(m_context, &serverAnswered, request);
        break;
    }
    if (track(operation, request))
        pa_operation_unref(operation);
}

void PulseConnection::applyAndPost(const std::function<PulseMirror::Notices(PulseMirror&)>& apply) {
    PulseMirror::Notices notices;
    {
        std::lock_guard lock(m_mirrorMutex);
        notices = apply(m_staging ? *m_staging : m_mirror);
    }
    m_mirrorChanged.notify_all();
    // While synchronising, the whole swap is announced at its end instead.
    if (!m_staging)
        post(std::move(notices));
}

void PulseConnection::post(PulseMirror::Notices notices) {
    if (notices.empty())
        return;
    QMetaObject::invokeMethod(
        this, [this, notices = std::move(notices)] { emit this->notices(notices); },
        Qt::QueuedConnection);
}

void PulseConnection::withContext(const std::function<void(pa_context*)>& use) {
    if (!m_mainloop)
        return use(nullptr);
    pa_threaded_mainloop_lock(m_mainloop);
    use(isReady() ? m_context : nullptr);
    pa_threaded_mainloop_unlock(m_mainloop);
}

OSStatus PulseConnection::runOperation(const std::function<pa_operation*(Request*)>& issue,
                                       std::uint32_t* outIndex, std::shared_ptr<Pending> pending) {
    // After one timeout the next writes fail at once, so that a stalled server costs one user
    // action at most one timeout, not one per request.
    if (!m_mainloop || !isReady() || m_stalled)
        return kAudioHardwareNotRunningError;
    if (!pending)
        pending = std::make_shared<Pending>();
    pa_threaded_mainloop_lock(m_mainloop);
    pa_operation* operation = nullptr;
    if (m_context) {
        auto* request = new Request{this, pending};
        operation = track(issue(request), request);
    }
    pa_threaded_mainloop_unlock(m_mainloop);
    if (!operation)
        return kAudioHardwareUnspecifiedError;

    // A lost connection cancels the operation, which finishes `pending` too.
    std::unique_lock lock(pending->mutex);
    pending->condition.wait_for(lock, std::chrono::milliseconds(kOperationTimeoutMs),
                                [&] { return pending->done; });
    const bool answered = pending->done && !pending->cancelled;
    const bool success = pending->success;
    const std::uint32_t index = pending->index;
    lock.unlock();

    // Cancelling frees the request; the callback takes `pending->mutex` under the mainloop lock,
    // so that one is let go of first.
    pa_threaded_mainloop_lock(m_mainloop);
    if (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
        pa_operation_cancel(operation);
        if (isReady())
            beginStall();
    }
    pa_operation_unref(operation);
    pa_threaded_mainloop_unlock(m_mainloop);

    if (!answered)
        return kAudioHardwareNotRunningError;
    if (!success)
        return kAudioHardwareUnspecifiedError;
    if (outIndex)
        *outIndex = index;
    return kAudioHardwareNoError;
}

void PulseConnection::beginStall() {
    if (m_stalled.exchange(true) || !m_context)
        return;
    // The first answer after the stall ends it; its userdata is `this`, which outlives the
    // context, so a cancelled probe leaves nothing behind.
    if (pa_operation* probe = pa_context_get_server_info(m_context, &stallEnded, this))
        pa_operation_unref(probe);
}

void PulseConnection::stallEnded(pa_context*, const pa_server_info*, void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    self->m_stalled = false;
    // Whoever gave up on the server while it was stalled looks again.
    self->post({{PulseMirror::Target::System, {}, kAudioHardwarePropertyDevices}});
}

OSStatus PulseConnection::waitForMirror(const std::function<bool(const PulseMirror&)>& holds) {
    if (m_stalled || !isReady())
        return kAudioHardwareNotRunningError;
    if (settleMirror(holds, kOperationTimeoutMs))
        return kAudioHardwareNoError;
    pa_threaded_mainloop_lock(m_mainloop);
    if (isReady())
        beginStall();
    pa_threaded_mainloop_unlock(m_mainloop);
    return kAudioHardwareNotRunningError;
}

bool PulseConnection::settleMirror(const std::function<bool(const PulseMirror&)>& holds, int ms) {
    std::unique_lock lock(m_mirrorMutex);
    return m_mirrorChanged.wait_for(lock, std::chrono::milliseconds(ms),
                                    [&] { return holds(m_mirror); });
}

namespace {

void successCallback(pa_context*, int success, void* userdata) {
    finishRequest(static_cast<Request*>(userdata), success != 0);
}

pa_cvolume toCVolume(const std::vector<std::uint32_t>& channelVolumes) {
    pa_cvolume volume;
    pa_cvolume_init(&volume);
    volume.channels = std::uint8_t(std::min<std::size_t>(channelVolumes.size(), PA_CHANNELS_MAX));
    for (unsigned channel = 0; channel < volume.channels; ++channel)
        volume.values[channel] = channelVolumes[channel];
    return volume;
}

} // namespace

OSStatus PulseConnection::writeDevice(PulseMirror::Target target, const QString& name,
                                      const DeviceWrite& write) {
    const QByteArray deviceName = name.toUtf8();
    const char* device = deviceName.constData();
    const bool sink = target == PulseMirror::Target::Sink;
    const pa_cvolume volume = toCVolume(write.volume.value_or(std::vector<std::uint32_t>{}));
    const int mute = write.mute.value_or(false) ? 1 : 0;
    const OSStatus status = runOperation([&](Request* request) {
        if (write.volume)
            return sink ? pa_context_set_sink_volume_by_name(m_context, device, &volume,
                                                             successCallback, request)
                        : pa_context_set_source_volume_by_name(m_context, device, &volume,
                                                               successCallback, request);
        return sink ? pa_context_set_sink_mute_by_name(m_context, device, mute, successCallback,
                                                       request)
                    : pa_context_set_source_mute_by_name(m_context, device, mute, successCallback,
                                                         request);
    });
    if (status != kAudioHardwareNoError)
        return status;
    // The server's change event follows; until then the mirror holds what was written.
    PulseMirror::Notices notices;
    {
        std::lock_guard lock(m_mirrorMutex);
        const auto* record = sink ? m_mirror.sink(name) : m_mirror.source(name);
        if (record) {
            PulseRecords::Device written = *record;
            if (write.volume)
                written.volume = *write.volume;
            if (write.mute)
                written.mute = *write.mute;
            notices = sink ? m_mirror.upsertSink(written) : m_mirror.upsertSource(written);
        }
    }
    post(std::move(notices));
    return kAudioHardwareNoError;
}

OSStatus PulseConnection::setDefaultSink(const QString& name) {
    const QByteArray sinkName = name.toUtf8();
    const OSStatus status = runOperation([&](Request* request) {
        return pa_context_set_default_sink(m_context, sinkName.constData(), successCallback,
                                           request);
    });
    if (status == kAudioHardwareNoError)
        takeWrittenDefault([&](PulseRecords::Server& server) { server.defaultSink = name; });
    return status;
}

OSStatus PulseConnection::setDefaultSource(const QString& name) {
    const QByteArray sourceName = name.toUtf8();
    const OSStatus status = runOperation([&](Request* request) {
        return pa_context_set_default_source(m_context, sourceName.constData(), successCallback,
                                             request);
    });
    if (status == kAudioHardwareNoError)
        takeWrittenDefault([&](PulseRecords::Server& server) { server.defaultSource = name; });
    return status;
}

// PipeWire's session manager settles a default a moment after the write is acknowledged, so the
// mirror takes the written name now; the server's later word replaces it.
void PulseConnection::takeWrittenDefault(const std::function<void(PulseRecords::Server&)>& write) {
    PulseMirror::Notices notices;
    {
        std::lock_guard lock(m_mirrorMutex);
        PulseRecords::Server server = m_mirror.server();
        write(server);
        notices = m_mirror.setServer(server);
    }
    post(std::move(notices));
}

OSStatus PulseConnection::moveSinkInput(std::uint32_t index, const QString& sinkName) {
    const QByteArray name = sinkName.toUtf8();
    return runOperation([&](Request* request) {
        return pa_context_move_sink_input_by_name(m_context, index, name.constData(),
                                                  successCallback, request);
    });
}

OSStatus PulseConnection::setSinkInputVolume(std::uint32_t index,
                                             const std::vector<std::uint32_t>& channelVolumes) {
    const pa_cvolume volume = toCVolume(channelVolumes);
    return runOperation([&](Request* request) {
        return pa_context_set_sink_input_volume(m_context, index, &volume, successCallback,
                                                request);
    });
}

OSStatus PulseConnection::setSinkInputMute(std::uint32_t index, bool mute) {
    return runOperation([&](Request* request) {
        return pa_context_set_sink_input_mute(m_context, index, mute, successCallback, request);
    });
}

OSStatus PulseConnection::unpinRestoredSinkInputs(const QString& sinkName,
                                                  const QStringList& restoreIDs) {
    if (restoreIDs.isEmpty())
        return kAudioHardwareNoError;
    auto collected = std::make_shared<Pending>();
    const OSStatus read = runOperation(
        [&](Request* request) {
            return pa_ext_stream_restore_read(
                m_context,
                [](pa_context*, const pa_ext_stream_restore_info* info, int eol, void* userdata) {
                    auto* request = static_cast<Request*>(userdata);
                    if (info && info->name && info->device && *info->device)
                        request->pending->pinnedEntries.push_back({info->name, info->device,
                                                                   info->channel_map, info->volume,
                                                                   info->mute});
                    // eol < 0: the server has no stream-restore; nothing pins anything.
                    if (eol)
                        finishRequest(request, true);
                },
                request);
        },
        nullptr, collected);
    if (read != kAudioHardwareNoError)
        return read;
    std::vector<Pending::RestoreEntry> entries;
    {
        std::lock_guard lock(collected->mutex);
        entries = collected->pinnedEntries;
    }
    const std::string pinnedTo = sinkName.toStdString();
    std::vector<pa_ext_stream_restore_info> unpinned;
    for (const auto& entry : entries) {
        if (entry.device != pinnedTo || !restoreIDs.contains(QString::fromStdString(entry.name)))
            continue;
        pa_ext_stream_restore_info info{};
        info.name = entry.name.c_str();
        info.channel_map = entry.channelMap;
        info.volume = entry.volume;
        info.device = nullptr;
        info.mute = entry.mute;
        unpinned.push_back(info);
    }
    if (unpinned.empty())
        return kAudioHardwareNoError;
    return runOperation([&](Request* request) {
        return pa_ext_stream_restore_write(m_context, PA_UPDATE_REPLACE, unpinned.data(),
                                           unsigned(unpinned.size()), 1, successCallback, request);
    });
}

OSStatus PulseConnection::loadModule(const QString& name, const QString& argument,
                                     std::uint32_t& outIndex) {
    const QByteArray moduleName = name.toUtf8();
    const QByteArray moduleArgument = argument.toUtf8();
    return runOperation(
        [&](Request* request) {
            return pa_context_load_module(
                m_context, moduleName.constData(), moduleArgument.constData(),
                [](pa_context*, std::uint32_t index, void* userdata) {
                    finishRequest(static_cast<Request*>(userdata), index != PA_INVALID_INDEX,
                                  index);
                },
                request);
        },
        &outIndex);
}

OSStatus PulseConnection::unloadModule(std::uint32_t index) {
    return runOperation([&](Request* request) {
        return pa_context_unload_module(m_context, index, successCallback, request);
    });
}

void PulseConnection::forgetSink(const QString& name) {
    PulseMirror::Notices notices;
    {
        std::lock_guard lock(m_mirrorMutex);
        if (const auto* sink = m_mirror.sink(name))
            notices = m_mirror.removeSink(sink->index);
    }
    post(std::move(notices));
}

#undef ONDRIL_ANSWER
