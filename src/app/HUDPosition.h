#pragma once

#include <QString>

#include <array>
#include <optional>

// Where the volume overlay stands: the nine places of a three-by-three grid, in reading order.
enum class HUDPosition {
    topLeft,
    top,
    topRight,
    left,
    center,
    right,
    bottomLeft,
    bottom,
    bottomRight
};

namespace HUDPositions {
inline constexpr std::array<HUDPosition, 9> allCases{
    HUDPosition::topLeft,    HUDPosition::top,    HUDPosition::topRight,
    HUDPosition::left,       HUDPosition::center, HUDPosition::right,
    HUDPosition::bottomLeft, HUDPosition::bottom, HUDPosition::bottomRight};

QString rawValue(HUDPosition position);
std::optional<HUDPosition> fromRawValue(const QString& rawValue);
inline int row(HUDPosition position) {
    return int(position) / 3;
}
inline int column(HUDPosition position) {
    return int(position) % 3;
}
} // namespace HUDPositions
