#pragma once

#include <QColor>
#include <QMetaType>
#include <QVariantMap>

// The settings window's seven colours, one set for each colour scheme.
struct SettingsTheme {
    Q_GADGET
    Q_PROPERTY(QColor sidebar MEMBER sidebar)
    Q_PROPERTY(QColor detail MEMBER detail)
    Q_PROPERTY(QColor card MEMBER card)
    Q_PROPERTY(QColor cardBorder MEMBER cardBorder)
    Q_PROPERTY(QColor hover MEMBER hover)
    Q_PROPERTY(QColor selection MEMBER selection)
    Q_PROPERTY(QColor selectionBorder MEMBER selectionBorder)

public:
    QColor sidebar;
    QColor detail;
    QColor card;
    QColor cardBorder;
    QColor hover;
    QColor selection;
    QColor selectionBorder;

    static SettingsTheme light();
    static SettingsTheme dark();
    static SettingsTheme forScheme(bool isDark) { return isDark ? dark() : light(); }

    QVariantMap toVariantMap() const;

    friend bool operator==(const SettingsTheme&, const SettingsTheme&) = default;
};

Q_DECLARE_METATYPE(SettingsTheme)
