#pragma once

#include <QMap>
#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <QVariantMap>

// One named set of output devices that play as one. Members may be absent at any moment; the
// record enforces nothing, and volumes are clamped only when set through GroupManager.
// A gadget, so that the panel reads its fields as they stand.
struct OutputGroup {
    Q_GADGET
    Q_PROPERTY(QString id READ idText) // the stored, upper-case form: compare with activeGroupID
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(QStringList memberUIDs MEMBER memberUIDs)
    Q_PROPERTY(QString masterUID MEMBER masterUID)
    Q_PROPERTY(double masterVolume MEMBER masterVolume)
    Q_PROPERTY(QVariantMap balance READ balanceMap)

public:
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

    QString idText() const;
    QVariantMap balanceMap() const;
};

size_t qHash(const OutputGroup& group, size_t seed = 0);

Q_DECLARE_METATYPE(OutputGroup)
