#pragma once

#include <QJsonArray>
#include <QProcess>

#include <memory>
#include <optional>
#include <vector>

// A sound server of the test's own: a private PulseAudio, or PipeWire with WirePlumber and
// pipewire-pulse, in a runtime directory of its own, with null sinks standing in for devices and
// remap sources for inputs. While it runs, PULSE_SERVER points this process (and every pactl,
// paplay and parecord it starts) at it and nowhere else.
class PrivateSoundServer {
public:
    enum class Kind { PulseAudio, PipeWire };

    struct Device {
        QString name;
        QString description;
    };

    static QString kindName(Kind kind);
    // The server ONDRIL_TEST_SERVER names ("pulse" or "pipewire"), if it names one.
    static std::optional<Kind> kindFromEnvironment();

    // The stand-ins every server test starts with: four null sinks and one input.
    static std::vector<Device> defaultSinks();
    static Device defaultInput(); // remaps the monitor of studio_left

    // The server ONDRIL_TEST_SERVER names, started with its devices; nullptr with `error` saying
    // why when the variable is missing or the server does not start.
    static std::unique_ptr<PrivateSoundServer> startFromEnvironment(QString& error);

    explicit PrivateSoundServer(Kind kind);
    ~PrivateSoundServer();
    PrivateSoundServer(const PrivateSoundServer&) = delete;
    PrivateSoundServer& operator=(const PrivateSoundServer&) = delete;

    Kind kind() const { return m_kind; }

    // Starts the daemons, waits until `pactl info` answers, loads the devices and checks that
    // they are there. False with `error()` set when anything of that fails.
    bool start();
    // Kills the daemons by their pids and waits for them.
    void stop();
    // Freezes the daemons (SIGSTOP) and lets them go on (SIGCONT): a server that does not answer.
    void pause();
    void resume();
    QString error() const { return m_error; }
    QString serverAddress() const;

    // Runs pactl against this server; nullopt when it fails (exit status or time).
    std::optional<QString> pactl(const QStringList& arguments, int timeoutMs = 5000) const;
    // Loads a null sink and returns the module index.
    std::optional<quint32> loadNullSink(const QString& name, const QString& description) const;
    std::optional<quint32> loadRemapSource(const QString& name, const QString& description,
                                           const QString& master) const;

    // What `pactl` says of the server's objects.
    QString defaultSinkName() const;
    QString defaultSourceName() const;
    QStringList sinkNames() const;
    // Volume of a sink in percent per channel.
    std::vector<int> sinkVolumePercent(const QString& sink) const;
    // Sink a sink-input of the given application name plays to (name), empty if none.
    QString sinkOfStream(const QString& applicationName) const;
    std::optional<quint32> streamIndex(const QString& applicationName) const;
    // Module index and arguments of the module that owns the sink.
    std::optional<std::pair<quint32, QString>> owningModule(const QString& sink) const;

    // `pactl subscribe`: the server's events from now on; `sinkEvents` stops it and counts the
    // sinks that appeared and vanished meanwhile.
    std::unique_ptr<QProcess> subscribe() const;
    static std::pair<int, int> sinkEvents(QProcess& subscription);

    // A sine tone played with paplay to `sink` (empty: the default), named `applicationName`,
    // with further stream `properties` ("application.id=org.example.Player").
    std::unique_ptr<QProcess> playTone(const QString& sink, const QString& applicationName,
                                       const QStringList& properties = {}) const;
    // RMS of what the monitor of `sink` carries over `msec`, of full scale (0..1); the loudest
    // 50 ms window counts so that start-up silence does not. nullopt when recording fails.
    std::optional<double> recordLevel(const QString& sink, int msec = 800) const;

private:
    bool isRunning() const;
    bool startDaemons();
    bool loadDevices();
    // Starts `program` with its output in <program>.log; false with `m_error` set if it does not.
    bool spawn(const QString& program, const QStringList& arguments);
    QString toneFile() const;
    // This process's environment, pointed at this server.
    QProcessEnvironment clientEnvironment() const;
    // What `pactl -f json list <what>` prints.
    QJsonArray listJson(const QString& what) const;

    Kind m_kind;
    QString m_root;    // this server's directory inside the sandbox
    QString m_runtime; // its XDG_RUNTIME_DIR
    int m_generation = 0;
    std::vector<std::unique_ptr<QProcess>> m_processes;
    QString m_error;
};
