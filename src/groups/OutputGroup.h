#pragma once

#include <QMap>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QUuid>

// One named set of output devices that play as one. Members may be absent at any moment; the
// record enforces nothing, and volumes are clamped only when set through GroupManager.
struct OutputGroup {
    static constexpr double defaultMasterVolume = 0.65;

    QUuid id;
    QString name;
    QStringList memberUIDs;                    // the user's selection order
    QString masterUID;                         // clock master; may be absent or no member at all
    double masterVolume = defaultMasterVolume; // 0...1
    QMap<QString, double> balance;             // per-member factor 0...1; no entry means 1.0
    // Names of members from older data, folded into the custom names at start.
    QMap<QString, QString> deviceNames;

    friend bool operator==(const OutputGroup&, const OutputGroup&) = default;
};

size_t qHash(const OutputGroup& group, size_t seed = 0);

Q_DECLARE_METATYPE(OutputGroup)
