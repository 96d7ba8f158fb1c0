#include "PrivateSoundServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <functional>

namespace {

constexpr int kReadyTimeoutMs = 15000;

QString sandboxRoot() {
    for (const char* name : {"ONDRIL_TEST_SANDBOX", "XDG_RUNTIME_DIR"})
        if (!qEnvironmentVariableIsEmpty(name))
            return qEnvironmentVariable(name);
    return QDir::tempPath();
}

// Checks `condition` every `stepMs` until it holds or `timeoutMs` have passed; whether it held.
bool pollUntil(const std::function<bool()>& condition, int timeoutMs, int stepMs = 50) {
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() >= timeoutMs)
            return false;
        QThread::msleep(std::uint32_t(stepMs));
    }
    return true;
}

// The index pactl prints for a module it loaded.
std::optional<quint32> moduleIndex(const std::optional<QString>& output) {
    bool ok = false;
    const quint32 index = output ? output->trimmed().toUInt(&ok) : 0;
    return ok ? std::optional<quint32>(index) : std::nullopt;
}

} // namespace

QString PrivateSoundServer::kindName(Kind kind) {
    return kind == Kind::PulseAudio ? QString("pulse") : QString("pipewire");
}

std::vector<PrivateSoundServer::Device> PrivateSoundServer::defaultSinks() {
    return {{"studio_left", "Studio Display Left"},
            {"studio_right", "Studio Display Right"},
            {"airpods", "AirPods Pro"},
            {"builtin", "Built-in Speakers"}};
}

PrivateSoundServer::Device PrivateSoundServer::defaultInput() {
    return {"studio_mic", "Studio Microphone"};
}

std::optional<PrivateSoundServer::Kind> PrivateSoundServer::kindFromEnvironment() {
    const QString name = qEnvironmentVariable("ONDRIL_TEST_SERVER");
    for (const Kind kind : {Kind::PulseAudio, Kind::PipeWire})
        if (name == kindName(kind))
            return kind;
    return std::nullopt;
}

std::unique_ptr<PrivateSoundServer> PrivateSoundServer::startFromEnvironment(QString& error) {
    const auto kind = kindFromEnvironment();
    auto server = kind ? std::make_unique<PrivateSoundServer>(*kind) : nullptr;
    if (server && server->start())
        return server;
    error = server ? server->error()
                   : "ONDRIL_TEST_SERVER must name the server to test against (pulse or pipewire)";
    return nullptr;
}

PrivateSoundServer::PrivateSoundServer(Kind kind)
    : m_kind(kind) {
    static int instance = 0;
    m_root = QString("%1/sound-%2-%3-%4")
                 .arg(sandboxRoot(), kindName(kind))
                 .arg(QCoreApplication::applicationPid())
                 .arg(++instance);
    m_runtime = m_root + "/runtime";
}

PrivateSoundServer::~PrivateSoundServer() {
    stop();
}

QString PrivateSoundServer::serverAddress() const {
    return QString("unix:%1/pulse/native").arg(m_runtime);
}

bool PrivateSoundServer::isRunning() const {
    return !m_processes.empty() &&
           std::all_of(m_processes.begin(), m_processes.end(),
                       [](const auto& process) { return process->state() == QProcess::Running; });
}

bool PrivateSoundServer::spawn(const QString& program, const QStringList& arguments) {
    auto process = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_RUNTIME_DIR", m_runtime);
    environment.insert("HOME", m_root + "/home");
    environment.insert("XDG_CONFIG_HOME", m_root + "/home/.config");
    // A fresh state directory per start, so that WirePlumber and PulseAudio start clean.
    const QString state = QString("%1/state-%2").arg(m_root).arg(m_generation);
    environment.insert("XDG_STATE_HOME", state);
    environment.insert("PULSE_STATE_PATH", state + "/pulse");
    environment.insert("PULSE_RUNTIME_PATH", m_runtime + "/pulse");
    environment.remove("PULSE_SERVER");
    environment.remove("PIPEWIRE_REMOTE");
    QDir().mkpath(state + "/pulse");
    process->setProcessEnvironment(environment);
    process->setStandardOutputFile(m_root + "/" + program + ".log", QIODevice::Append);
    process->setStandardErrorFile(m_root + "/" + program + ".log", QIODevice::Append);
    process->start(program, arguments);
    if (!process->waitForStarted(5000)) {
        m_error = QString("%1 did not start: %2").arg(program, process->errorString());
        return false;
    }
    m_processes.push_back(std::move(process));
    return true;
}

bool PrivateSoundServer::start() {
    stop();
    m_error.clear();
    ++m_generation;
    QDir().mkpath(m_runtime);
    QFile::setPermissions(m_runtime,
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QDir().mkpath(m_root + "/home/.config/pulse");
    qputenv("PULSE_SERVER", serverAddress().toUtf8());
    qputenv("PULSE_RUNTIME_PATH", (m_runtime + "/pulse").toUtf8());

    const bool ready =
        startDaemons() &&
        pollUntil([&] { return !isRunning() || pactl({"info"}, 2000); }, kReadyTimeoutMs) &&
        isRunning();
    if (ready && loadDevices())
        return true;
    if (m_error.isEmpty())
        m_error = QString("%1 did not answer `pactl info` within %2 ms")
                      .arg(kindName(m_kind))
                      .arg(kReadyTimeoutMs);
    stop();
    return false;
}

bool PrivateSoundServer::startDaemons() {
    if (m_kind == Kind::PipeWire) {
        if (!spawn("pipewire", {}))
            return false;
        // WirePlumber connects to the PipeWire socket; give it a moment to appear.
        pollUntil([&] { return QFile::exists(m_runtime + "/pipewire-0"); }, 5000, 20);
        return spawn("wireplumber", {}) && spawn("pipewire-pulse", {});
    }
    // PulseAudio limits itself to 256 descriptors by default: not enough for 64 null sinks.
    QFile configuration(m_root + "/home/.config/pulse/daemon.conf");
    if (configuration.open(QIODevice::WriteOnly | QIODevice::Truncate))
        configuration.write("rlimit-nofile = 4096\n");
    // No startup script: the devices are loaded afterwards with pactl, the same way on both
    // servers. As root PulseAudio only warns that it is meant for --system; a per-user daemon
    // still runs.
    return spawn("pulseaudio",
                 {"-n", "--load=module-native-protocol-unix", "--load=module-stream-restore",
                  "--load=module-always-sink", "--daemonize=no", "--exit-idle-time=-1",
                  "--use-pid-file=no", "--log-target=stderr"});
}

bool PrivateSoundServer::loadDevices() {
    const std::vector<Device> sinks = defaultSinks();
    for (const Device& sink : sinks) {
        if (!loadNullSink(sink.name, sink.description)) {
            m_error = QString("could not load null sink %1").arg(sink.name);
            return false;
        }
    }
    const Device input = defaultInput();
    if (!loadRemapSource(input.name, input.description, "studio_left.monitor")) {
        m_error = QString("could not load remap source %1").arg(input.name);
        return false;
    }
    // Loading is asynchronous on PipeWire: wait until every sink is listed.
    const auto allListed = [&] {
        const QStringList names = sinkNames();
        return std::all_of(sinks.begin(), sinks.end(),
                           [&](const Device& sink) { return names.contains(sink.name); });
    };
    if (pollUntil(allListed, 5000))
        return true;
    m_error = QString("the null sinks did not appear: %1").arg(sinkNames().join(u' '));
    return false;
}

void PrivateSoundServer::stop() {
    // Reverse order: the pulse front end and the session manager before PipeWire itself.
    for (auto it = m_processes.rbegin(); it != m_processes.rend(); ++it) {
        QProcess& process = **it;
        if (process.state() == QProcess::NotRunning)
            continue;
        ::kill(pid_t(process.processId()), SIGTERM);
        if (!process.waitForFinished(3000)) {
            ::kill(pid_t(process.processId()), SIGKILL);
            process.waitForFinished(3000);
        }
    }
    m_processes.clear();
}

void PrivateSoundServer::pause() {
    for (const auto& process : m_processes)
        ::kill(pid_t(process->processId()), SIGSTOP);
}

void PrivateSoundServer::resume() {
    for (const auto& process : m_processes)
        ::kill(pid_t(process->processId()), SIGCONT);
}

QProcessEnvironment PrivateSoundServer::clientEnvironment() const {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("PULSE_SERVER", serverAddress());
    return environment;
}

std::optional<QString> PrivateSoundServer::pactl(const QStringList& arguments,
                                                 int timeoutMs) const {
    QProcess process;
    process.setProcessEnvironment(clientEnvironment());
    process.start("pactl", arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(1000);
        return std::nullopt;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return std::nullopt;
    return QString::fromUtf8(process.readAllStandardOutput());
}

std::optional<quint32> PrivateSoundServer::loadNullSink(const QString& name,
                                                        const QString& description) const {
    // Blanks survive on both servers inside double quotes within single quotes.
    return moduleIndex(
        pactl({"load-module", "module-null-sink", "sink_name=" + name,
               QString("sink_properties='device.description=\"%1\"'").arg(description)}));
}

std::optional<quint32> PrivateSoundServer::loadRemapSource(const QString& name,
                                                           const QString& description,
                                                           const QString& master) const {
    return moduleIndex(
        pactl({"load-module", "module-remap-source", "master=" + master, "source_name=" + name,
               QString("source_properties='device.description=\"%1\"'").arg(description)}));
}

QString PrivateSoundServer::defaultSinkName() const {
    return pactl({"get-default-sink"}).value_or(QString()).trimmed();
}

QString PrivateSoundServer::defaultSourceName() const {
    return pactl({"get-default-source"}).value_or(QString()).trimmed();
}

QStringList PrivateSoundServer::sinkNames() const {
    QStringList names;
    for (const QJsonValue& sink : listJson("sinks"))
        names.append(sink[QLatin1String("name")].toString());
    return names;
}

std::vector<int> PrivateSoundServer::sinkVolumePercent(const QString& sink) const {
    std::vector<int> percents;
    const QString output = pactl({"get-sink-volume", sink}).value_or(QString());
    const QString firstLine = output.section(u'\n', 0, 0);
    static const QRegularExpression percent("(\\d+)%");
    for (auto match = percent.globalMatch(firstLine); match.hasNext();)
        percents.push_back(match.next().captured(1).toInt());
    return percents;
}

QJsonArray PrivateSoundServer::listJson(const QString& what) const {
    const auto output = pactl({"-f", "json", "list", what});
    return output ? QJsonDocument::fromJson(output->toUtf8()).array() : QJsonArray();
}

// The sink-input an application plays, as pactl lists it; null when it plays none.
static QJsonValue streamOf(const QJsonArray& inputs, const QString& applicationName) {
    for (const QJsonValue& input : inputs) {
        if (input[QLatin1String("properties")][QLatin1String("application.name")].toString() ==
            applicationName)
            return input;
    }
    return QJsonValue();
}

QString PrivateSoundServer::sinkOfStream(const QString& applicationName) const {
    const QJsonValue input = streamOf(listJson("sink-inputs"), applicationName);
    if (input.isNull())
        return {};
    for (const QJsonValue& sink : listJson("sinks")) {
        if (sink[QLatin1String("index")].toInt() == input[QLatin1String("sink")].toInt())
            return sink[QLatin1String("name")].toString();
    }
    return {};
}

std::optional<quint32> PrivateSoundServer::streamIndex(const QString& applicationName) const {
    const QJsonValue input = streamOf(listJson("sink-inputs"), applicationName);
    if (input.isNull())
        return std::nullopt;
    return quint32(input[QLatin1String("index")].toDouble());
}

std::optional<std::pair<quint32, QString>>
PrivateSoundServer::owningModule(const QString& sink) const {
    const auto modules = pactl({"list", "short", "modules"});
    if (!modules)
        return std::nullopt;
    std::optional<quint32> owner;
    for (const QJsonValue& entry : listJson("sinks")) {
        if (entry[QLatin1String("name")].toString() == sink)
            owner = quint32(entry[QLatin1String("owner_module")].toDouble());
    }
    if (!owner)
        return std::nullopt;
    for (const QString& line : modules->split(u'\n', Qt::SkipEmptyParts)) {
        const QStringList fields = line.split(u'\t');
        if (fields.size() > 2 && fields.at(0).toUInt() == *owner)
            return std::make_pair(*owner, fields.at(2));
    }
    return std::nullopt;
}

std::unique_ptr<QProcess> PrivateSoundServer::subscribe() const {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(clientEnvironment());
    process->start("pactl", {"subscribe"});
    process->waitForStarted(3000);
    QThread::msleep(300); // subscribed once the server has taken the request
    return process;
}

std::pair<int, int> PrivateSoundServer::sinkEvents(QProcess& subscription) {
    QThread::msleep(300); // the last events on their way
    subscription.kill();
    subscription.waitForFinished(3000);
    const QString output = QString::fromUtf8(subscription.readAllStandardOutput());
    return {int(output.count(QLatin1String("Event 'new' on sink #"))),
            int(output.count(QLatin1String("Event 'remove' on sink #")))};
}

QString PrivateSoundServer::toneFile() const {
    // Raw 44.1 kHz stereo 16-bit samples: 30 s of a 440 Hz sine at half scale.
    const QString path = m_root + "/tone.raw";
    if (QFile::exists(path))
        return path;
    constexpr int rate = 44100;
    std::vector<std::int16_t> samples(2 * rate * 30);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = std::int16_t(16384 * std::sin(2 * M_PI * 440.0 * double(i / 2) / rate));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(reinterpret_cast<const char*>(samples.data()), qint64(samples.size() * 2));
    return path;
}

std::unique_ptr<QProcess> PrivateSoundServer::playTone(const QString& sink,
                                                       const QString& applicationName,
                                                       const QStringList& properties) const {
    auto process = std::make_unique<QProcess>();
    QProcessEnvironment environment = clientEnvironment();
    environment.insert("PULSE_PROP", QString("application.name='%1'").arg(applicationName));
    process->setProcessEnvironment(environment);
    QStringList arguments{"--raw", "--format=s16le", "--rate=44100", "--channels=2",
                          "--client-name=" + applicationName};
    if (!sink.isEmpty())
        arguments << "--device=" + sink;
    for (const QString& property : properties)
        arguments << "--property=" + property;
    process->start("paplay", arguments << toneFile());
    if (!process->waitForStarted(3000))
        return nullptr;
    return process;
}

std::optional<double> PrivateSoundServer::recordLevel(const QString& sink, int msec) const {
    // parecord writes nothing to a pipe when it is stopped by a signal, so it writes to a file.
    const QString recording = m_root + "/recording.raw";
    QFile::remove(recording);
    QProcess process;
    process.setProcessEnvironment(clientEnvironment());
    process.start("parecord", {"--device=" + sink + ".monitor", "--raw", "--format=s16le",
                               // One channel as it is: PipeWire mixes stereo down to mono at -3 dB,
                               // and clips what is louder than full scale then.
                               "--channels=1", "--channel-map=front-left", "--rate=44100",
                               "--latency-msec=20", recording});
    if (!process.waitForStarted(3000))
        return std::nullopt;
    // Count from the first bytes on: connecting can take longer than the window itself.
    pollUntil([&] { return QFileInfo(recording).size() > 0; }, 5000, 10);
    QThread::msleep(std::uint32_t(msec));
    ::kill(pid_t(process.processId()), SIGTERM);
    process.waitForFinished(3000);
    QFile file(recording);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray data = file.readAll();
    const auto* samples = reinterpret_cast<const std::int16_t*>(data.constData());
    const qsizetype count = data.size() / 2;
    if (count == 0)
        return std::nullopt;
    constexpr qsizetype window = 44100 / 20;
    double loudest = 0;
    for (qsizetype start = 0; start < count; start += window) {
        const qsizetype end = std::min(count, start + window);
        double sum = 0;
        for (qsizetype i = start; i < end; ++i)
            sum += double(samples[i]) * samples[i];
        loudest = std::max(loudest, std::sqrt(sum / double(end - start)) / 32768.0);
    }
    return loudest;
}
