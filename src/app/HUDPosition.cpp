#include "app/HUDPosition.h"

namespace {

// In the order of the enumeration, which is the reading order of the grid.
constexpr std::array<const char*, 9> rawValues{
    "topLeft", "top", "topRight", "left", "center", "right", "bottomLeft", "bottom", "bottomRight"};

} // namespace

QString HUDPositions::rawValue(HUDPosition position) {
    return QLatin1String(rawValues[std::size_t(position)]);
}

std::optional<HUDPosition> HUDPositions::fromRawValue(const QString& rawValue) {
    for (HUDPosition position : allCases)
        if (rawValue == QLatin1String(rawValues[std::size_t(position)]))
            return position;
    return std::nullopt;
}
