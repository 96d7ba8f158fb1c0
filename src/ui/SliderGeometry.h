#pragma once

#include <QObject>

// The rules of OndrilSlider that are not drawing: where the knob and the fill stand for a value,
// which value a pointer position means, and which end stop a value touches. All widths are the
// available width; a width below 1 computes as 1, so nothing divides by zero.
class SliderGeometry : public QObject {
    Q_OBJECT
    Q_PROPERTY(int noDetent READ noDetentValue CONSTANT)

public:
    using QObject::QObject;

    static constexpr int noDetent = -1;
    static int noDetentValue() { return noDetent; }

    Q_INVOKABLE static double effectiveWidth(double available);
    // The knob's centre: 0 at or below value 0, the full width at or above 1.
    Q_INVOKABLE static double position(double value, double available);
    // At value 0 the fill is a stub as wide as the knob, lying under it.
    Q_INVOKABLE static double fillWidth(double value, double available, double knobSize);
    // The live level runs inside the fill.
    Q_INVOKABLE static double levelWidth(double fillWidth, double level);
    // A drag at x writes this value: exactly 0 before the start and exactly 1 past the end.
    Q_INVOKABLE static double valueAt(double x, double available);
    // 0 or 1 when the value touches that end stop, else noDetent.
    Q_INVOKABLE static int detent(double value);
};
