#include "ui/SliderGeometry.h"

#include <algorithm>

double SliderGeometry::effectiveWidth(double available) {
    return std::max(available, 1.0);
}

double SliderGeometry::position(double value, double available) {
    const double width = effectiveWidth(available);
    if (value <= 0)
        return 0;
    if (value >= 1)
        return width;
    return width * value;
}

double SliderGeometry::fillWidth(double value, double available, double knobSize) {
    return std::min(effectiveWidth(available), std::max(position(value, available), knobSize));
}

double SliderGeometry::levelWidth(double fillWidth, double level) {
    return fillWidth * std::clamp(level, 0.0, 1.0);
}

double SliderGeometry::valueAt(double x, double available) {
    return std::clamp(x / effectiveWidth(available), 0.0, 1.0);
}

int SliderGeometry::detent(double value) {
    if (value <= 0.001)
        return 0;
    if (value >= 0.999)
        return 1;
    return noDetent;
}
