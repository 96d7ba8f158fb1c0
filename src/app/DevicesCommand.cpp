#include "app/CommandLine.h"

#include "devices/AudioDeviceManager.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <cstdio>

namespace {

// One row of the listing, with everything read once so the two forms print the same facts.
struct DeviceRow {
    AudioDevice device;
    QString displayName;
    std::optional<float> volume;
    std::optional<bool> muted;
    bool isDefault = false;
};

QList<DeviceRow> rowsFor(const QList<AudioDevice>& devices, AudioObjectID defaultID,
                         AudioDeviceManager& manager) {
    QList<DeviceRow> rows;
    for (const AudioDevice& device : devices) {
        DeviceRow row;
        row.device = device;
        row.displayName = device.displayName();
        row.volume = device.isInput ? std::nullopt : device.volume;
        row.muted = manager.isMuted(device.id, device.isInput ? kAudioObjectPropertyScopeInput
                                                              : kAudioObjectPropertyScopeOutput);
        row.isDefault = device.id == defaultID;
        rows.append(row);
    }
    return rows;
}

// The service keeps volumes as 32-bit floats; four decimals keep 0.6 from printing as 0.6000000238.
double roundedVolume(float volume) {
    return std::round(double(volume) * 10000.0) / 10000.0;
}

QJsonArray toJson(const QList<DeviceRow>& rows) {
    QJsonArray array;
    for (const DeviceRow& row : rows) {
        QJsonObject object;
        object.insert(QStringLiteral("id"), qint64(row.device.id));
        object.insert(QStringLiteral("uid"), row.device.uid);
        object.insert(QStringLiteral("name"), row.device.name);
        object.insert(QStringLiteral("displayName"), row.displayName);
        object.insert(QStringLiteral("volume"),
                      row.volume ? QJsonValue(roundedVolume(*row.volume)) : QJsonValue());
        object.insert(QStringLiteral("muted"), row.muted ? QJsonValue(*row.muted) : QJsonValue());
        object.insert(QStringLiteral("isAirPlay"), row.device.isAirPlay);
        object.insert(QStringLiteral("isDefault"), row.isDefault);
        array.append(object);
    }
    return array;
}

QString yesNo(std::optional<bool> value) {
    if (!value)
        return QStringLiteral("-");
    return *value ? QStringLiteral("yes") : QStringLiteral("no");
}

QStringList cellsFor(const DeviceRow& row) {
    return {row.isDefault ? QStringLiteral("*") : QString(),
            QString::number(row.device.id),
            row.displayName,
            row.device.name,
            row.device.uid.isEmpty() ? QStringLiteral("-") : row.device.uid,
            row.volume ? QString::number(qRound(*row.volume * 100.0f)) + u'%' : QStringLiteral("-"),
            yesNo(row.muted),
            row.device.isAirPlay ? QStringLiteral("yes") : QStringLiteral("no")};
}

QString table(const QString& title, const QList<DeviceRow>& rows) {
    QList<QStringList> lines{{QString(), QStringLiteral("ID"), QStringLiteral("DISPLAY NAME"),
                              QStringLiteral("NAME"), QStringLiteral("UID"),
                              QStringLiteral("VOLUME"), QStringLiteral("MUTED"),
                              QStringLiteral("AIRPLAY")}};
    for (const DeviceRow& row : rows)
        lines.append(cellsFor(row));

    QList<qsizetype> widths(lines.first().size(), 0);
    for (const QStringList& line : lines)
        for (qsizetype column = 0; column < line.size(); ++column)
            widths[column] = std::max(widths[column], line[column].size());

    QString text = title + u'\n';
    if (rows.isEmpty())
        return text + QStringLiteral("  (none)\n");
    for (const QStringList& line : lines) {
        QString out = QStringLiteral("  ");
        for (qsizetype column = 0; column < line.size(); ++column) {
            const bool last = column == line.size() - 1;
            out += last ? line[column]
                        : line[column].leftJustified(widths[column]) + QStringLiteral("  ");
        }
        text += out + u'\n';
    }
    return text;
}

void print(FILE* stream, const QString& text) {
    std::fputs(text.toUtf8().constData(), stream);
}

} // namespace

namespace DevicesCommand {

std::optional<int> checkArguments(const QStringList& arguments) {
    for (const QString& argument : arguments) {
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            print(stdout, QStringLiteral("Usage: ondril devices [--json]\n\n"
                                         "Lists the sound server's outputs and inputs. --json "
                                         "prints the stable form for scripts.\n"));
            return 0;
        }
        if (argument != QLatin1String("--json")) {
            print(stderr, QStringLiteral("ondril: unknown argument '%1' for devices (see ondril "
                                         "devices --help)\n")
                              .arg(argument));
            return 2;
        }
    }
    return std::nullopt;
}

int run(const QStringList& arguments) {
    const bool json = arguments.contains(QStringLiteral("--json"));
    AudioDeviceManager& manager = AudioDeviceManager::shared();
    // The manager publishes one event-loop turn after its first enumeration.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::MetaCall);

    const auto outputs = rowsFor(manager.outputDevices(), manager.defaultOutputID(), manager);
    const auto inputs = rowsFor(manager.inputDevices(), manager.defaultInputID(), manager);

    if (json) {
        QJsonObject root;
        root.insert(QStringLiteral("outputs"), toJson(outputs));
        root.insert(QStringLiteral("inputs"), toJson(inputs));
        print(stdout, QString::fromUtf8(QJsonDocument(root).toJson(QJsonDocument::Indented)));
        return 0;
    }

    print(stdout, QStringLiteral("Audio service: %1\n\n").arg(manager.hardware().backendName()));
    print(stdout, table(QStringLiteral("Outputs"), outputs));
    print(stdout, QStringLiteral("\n"));
    print(stdout, table(QStringLiteral("Inputs"), inputs));
    print(stdout, QStringLiteral("\n* default device\n"));
    return 0;
}

} // namespace DevicesCommand
