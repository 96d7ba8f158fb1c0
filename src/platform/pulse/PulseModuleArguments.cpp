#include "platform/pulse/PulseModuleArguments.h"

#include "platform/pulse/PulseRecords.h"

QString PulseModuleArguments::quotableDescription(const QString& description, Server server) {
    QString text = description;
    text.remove(QLatin1Char('\\'));
    text.replace(QLatin1Char('"'), QChar(0x201D));
    if (server == Server::PipeWire)
        text.replace(QLatin1Char('\''), QChar(0x2019));
    return text;
}

QString PulseModuleArguments::combineSink(const QString& sinkName, const QString& description,
                                          const QStringList& slaves, Server server,
                                          std::int32_t ownerPid) {
    QString text = quotableDescription(description, server);
    QString properties;
    if (server == Server::PulseAudio) {
        // The module line unescapes \' inside single quotes; the property list then reads the
        // double-quoted value.
        text.replace(QLatin1Char('\''), QLatin1String("\\'"));
        properties = QStringLiteral("sink_properties='device.description=\"%1\" %2=%3'")
                         .arg(text, QLatin1String(PulseRecords::kOwnerPidProperty))
                         .arg(ownerPid);
    } else {
        properties = QStringLiteral("sink_properties=\"device.description='%1' %2=%3\"")
                         .arg(text, QLatin1String(PulseRecords::kOwnerPidProperty))
                         .arg(ownerPid);
    }
    return QStringLiteral("sink_name=%1 slaves=%2 %3")
        .arg(sinkName, slaves.join(QLatin1Char(',')), properties);
}
