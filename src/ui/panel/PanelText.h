#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// The texts of the panel's rows and headers that are rules rather than drawing.
class PanelText {
public:
    // The value times 100, rounded half away from zero, then "%".
    static QString percentText(double value);

    // A member's short label within its group: with the names' common prefix, cut back to a
    // word boundary, taken off ("Studio Display Left" and "Studio Display Right" show as "Left"
    // and "Right"). `own` itself where no prefix of 3 or more characters is shared.
    static QString shortLabel(const QStringList& names, const QString& own);

    // "Output" header: the active group's name with " · Group", else the default output's name,
    // else "None".
    static QString outputSubtitle(const std::optional<QString>& activeGroupName,
                                  const std::optional<QString>& defaultOutputName);
};
