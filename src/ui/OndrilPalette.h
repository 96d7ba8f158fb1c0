#pragma once

#include <QColor>
#include <QMetaType>
#include <QVariantMap>

// The panel's twelve colours, one set for each colour scheme. sRGB; where no opacity is given it
// is 1.
struct OndrilPalette {
    Q_GADGET
    Q_PROPERTY(QColor textPrimary MEMBER textPrimary)
    Q_PROPERTY(QColor textSecondary MEMBER textSecondary)
    Q_PROPERTY(QColor textTertiary MEMBER textTertiary)
    Q_PROPERTY(QColor accent MEMBER accent)
    Q_PROPERTY(QColor accentSoft MEMBER accentSoft)
    Q_PROPERTY(QColor accentTrack MEMBER accentTrack)
    Q_PROPERTY(QColor rowHover MEMBER rowHover)
    Q_PROPERTY(QColor rowActive MEMBER rowActive)
    Q_PROPERTY(QColor hairline MEMBER hairline)
    Q_PROPERTY(QColor trackEmpty MEMBER trackEmpty)
    Q_PROPERTY(QColor knob MEMBER knob)
    Q_PROPERTY(QColor glyph MEMBER glyph)

public:
    QColor textPrimary;
    QColor textSecondary;
    QColor textTertiary;
    QColor accent;
    QColor accentSoft;
    QColor accentTrack;
    QColor rowHover;
    QColor rowActive;
    QColor hairline;
    QColor trackEmpty;
    QColor knob;
    QColor glyph;

    static OndrilPalette light();
    static OndrilPalette dark();
    static OndrilPalette forScheme(bool isDark) { return isDark ? dark() : light(); }

    // The fields by name, as QML reads them.
    QVariantMap toVariantMap() const;

    friend bool operator==(const OndrilPalette&, const OndrilPalette&) = default;
};

Q_DECLARE_METATYPE(OndrilPalette)
