#pragma once

#include <QJsonObject>
#include <QMap>
#include <QString>

#include <cstdint>
#include <optional>

// A key combination bound to an action: the key's code and the modifier mask. Stored as
// {"keyCode": 46, "modifiers": 6144}; all bindings together under "ondril.hotKeys.v1" as one object
// from action id to combo.
struct HotKeyCombo {
    std::uint32_t keyCode = 0;
    std::uint32_t modifiers = 0;

    static constexpr std::uint32_t controlKey = 0x1000;
    static constexpr std::uint32_t optionKey = 0x0800;
    static constexpr std::uint32_t shiftKey = 0x0200;
    static constexpr std::uint32_t cmdKey = 0x0100;

    friend bool operator==(const HotKeyCombo&, const HotKeyCombo&) = default;

    QJsonObject toJson() const;
    static std::optional<HotKeyCombo> fromJson(const QJsonValue& value);

    // The whole stored table. Decoding is all or nothing: one entry that is not a combo makes the
    // table count as empty.
    static QByteArray encodeTable(const QMap<QString, HotKeyCombo>& table);
    static std::optional<QMap<QString, HotKeyCombo>> decodeTable(const QByteArray& data);
};
