#pragma once

#include <QString>
#include <QUuid>

#include <optional>

// The token of one side of auto-switching: the identity of the outcome it last reached. Absent
// means nothing is decided yet (just started, switched off, or a list has just changed); a rule's
// id in text form means that rule; "fallback" means no rule fits. It does not say which device or
// group came of it: only a change of outcome acts, so nothing is applied twice and a choice the
// user made by hand in the meantime is not fought.
class AutoSwitchToken {
public:
    enum class Step { nothing, applyRule, applyFallback };

    static inline const QString fallback = QStringLiteral("fallback");

    // Takes the outcome of one run (the first fitting rule, or none) into `token`, and says what
    // the run does about it. The token is stored before anything is applied, and an action that
    // fails does not undo it. The fallback runs only when a rule was in force and none fits now.
    static Step advance(std::optional<QString>& token, const std::optional<QUuid>& fittingRule);
};
