#include "groups/AudioRuleCodec.h"

#include "groups/OutputGroupCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString kGroupCase = QStringLiteral("group");
const QString kDeviceCase = QStringLiteral("device");
const QString kPayloadKey = QStringLiteral("_0");

// Decoding stops at the first error; its text says what was wrong where.
struct Reader {
    QString error;

    bool fail(const QString& text) {
        if (error.isEmpty())
            error = text;
        return false;
    }

    bool require(const QJsonObject& object, const QString& key, QJsonValue& out) {
        const auto it = object.constFind(key);
        if (it == object.constEnd())
            return fail(QStringLiteral("No value associated with key \"%1\".").arg(key));
        out = *it;
        return true;
    }

    bool readString(const QJsonObject& object, const QString& key, QString& out) {
        QJsonValue value;
        if (!require(object, key, value))
            return false;
        if (!value.isString())
            return fail(QStringLiteral("Expected a string under \"%1\".").arg(key));
        out = value.toString();
        return true;
    }

    bool readUuid(const QJsonObject& object, const QString& key, QUuid& out) {
        QString text;
        if (!readString(object, key, text))
            return false;
        const auto uuid = OutputGroupCodec::parseUuid(text);
        if (!uuid)
            return fail(QStringLiteral("Attempted to decode UUID from invalid UUID string."));
        out = *uuid;
        return true;
    }

    bool readAction(const QJsonObject& object, RuleAction& out) {
        QJsonValue value;
        if (!require(object, QStringLiteral("action"), value))
            return false;
        if (!value.isObject())
            return fail(QStringLiteral("Expected an object under \"action\"."));
        const QJsonObject cases = value.toObject();
        // Exactly one key, and it names a case.
        const QString caseName = cases.size() == 1 ? cases.constBegin().key() : QString();
        if (caseName != kGroupCase && caseName != kDeviceCase)
            return fail(AudioRuleCodec::invalidKeyCountText);
        const QJsonValue payload = cases.value(caseName);
        if (!payload.isObject())
            return fail(QStringLiteral("Expected an object under \"%1\".").arg(caseName));
        if (caseName == kGroupCase) {
            QUuid id;
            if (!readUuid(payload.toObject(), kPayloadKey, id))
                return false;
            out = RuleAction::group(id);
        } else {
            QString uid;
            if (!readString(payload.toObject(), kPayloadKey, uid))
                return false;
            out = RuleAction::device(uid);
        }
        return true;
    }

    bool readRule(const QJsonValue& value, AudioRule& rule) {
        if (!value.isObject())
            return fail(QStringLiteral("Expected an object for a rule."));
        const QJsonObject object = value.toObject();
        if (!readUuid(object, QStringLiteral("id"), rule.id))
            return false;
        QJsonValue required;
        if (!require(object, QStringLiteral("requiredDeviceUIDs"), required))
            return false;
        if (!required.isArray())
            return fail(QStringLiteral("Expected an array under \"requiredDeviceUIDs\"."));
        for (const QJsonValue uid : required.toArray()) {
            if (!uid.isString())
                return fail(QStringLiteral("Expected a string in \"requiredDeviceUIDs\"."));
            rule.requiredDeviceUIDs.append(uid.toString());
        }
        if (!readAction(object, rule.action))
            return false;
        QJsonValue enabled;
        if (!require(object, QStringLiteral("enabled"), enabled))
            return false;
        if (!enabled.isBool())
            return fail(QStringLiteral("Expected a boolean under \"enabled\"."));
        rule.enabled = enabled.toBool();
        return true;
    }
};

} // namespace

AudioRuleCodec::Decoded AudioRuleCodec::decode(const QByteArray& json) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return DecodingError{parseError.errorString()};
    if (!document.isArray())
        return DecodingError{QStringLiteral("Expected an array of rules.")};
    Reader reader;
    QList<AudioRule> rules;
    for (const QJsonValue value : document.array()) {
        AudioRule rule;
        if (!reader.readRule(value, rule))
            return DecodingError{reader.error};
        rules.append(rule);
    }
    return rules;
}

std::optional<QList<AudioRule>> AudioRuleCodec::decodeList(const QByteArray& json) {
    auto decoded = decode(json);
    if (auto* rules = std::get_if<QList<AudioRule>>(&decoded))
        return std::move(*rules);
    return std::nullopt;
}

QByteArray AudioRuleCodec::encode(const QList<AudioRule>& rules) {
    QJsonArray array;
    for (const AudioRule& rule : rules) {
        QJsonObject payload;
        QString caseName;
        if (rule.action.kind == RuleAction::Kind::group) {
            caseName = kGroupCase;
            payload.insert(kPayloadKey, OutputGroupCodec::uuidText(rule.action.groupID));
        } else {
            caseName = kDeviceCase;
            payload.insert(kPayloadKey, rule.action.deviceUID);
        }
        QJsonObject object;
        object.insert(QStringLiteral("id"), OutputGroupCodec::uuidText(rule.id));
        object.insert(QStringLiteral("requiredDeviceUIDs"),
                      QJsonArray::fromStringList(rule.requiredDeviceUIDs));
        object.insert(QStringLiteral("action"), QJsonObject{{caseName, payload}});
        object.insert(QStringLiteral("enabled"), rule.enabled);
        array.append(object);
    }
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}
