#include "ui/panel/PanelText.h"

#include <cmath>

QString PanelText::percentText(double value) {
    return QString::number(std::llround(value * 100)) + QLatin1Char('%');
}

QString PanelText::shortLabel(const QStringList& names, const QString& own) {
    if (names.size() < 2)
        return own;
    QString prefix = names.first();
    for (const QString& name : names) {
        qsizetype common = 0;
        while (common < prefix.size() && common < name.size() && prefix[common] == name[common])
            ++common;
        prefix.truncate(common);
    }
    while (!prefix.isEmpty() && prefix.back().isLetterOrNumber())
        prefix.chop(1);
    if (prefix.size() < 3 || !own.startsWith(prefix))
        return own;

    const auto isTrimmed = [](QChar c) {
        return c == QLatin1Char(' ') || c == QLatin1Char('-') || c == QChar(0x2013) ||
               c == QChar(0x00B7) || c == QLatin1Char(':');
    };
    QString rest = own.mid(prefix.size());
    while (!rest.isEmpty() && isTrimmed(rest.front()))
        rest.remove(0, 1);
    while (!rest.isEmpty() && isTrimmed(rest.back()))
        rest.chop(1);
    return rest.isEmpty() ? own : rest;
}

QString PanelText::outputSubtitle(const std::optional<QString>& activeGroupName,
                                  const std::optional<QString>& defaultOutputName) {
    if (activeGroupName)
        return *activeGroupName + QStringLiteral(" · Group");
    if (defaultOutputName)
        return *defaultOutputName;
    return QStringLiteral("None");
}
