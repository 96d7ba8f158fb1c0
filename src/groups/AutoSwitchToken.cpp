#include "groups/AutoSwitchToken.h"

#include "groups/OutputGroupCodec.h"

AutoSwitchToken::Step AutoSwitchToken::advance(std::optional<QString>& token,
                                               const std::optional<QUuid>& fittingRule) {
    const QString outcome = fittingRule ? OutputGroupCodec::uuidText(*fittingRule) : fallback;
    if (token == outcome)
        return Step::nothing;
    const std::optional<QString> old = token;
    token = outcome;
    if (fittingRule)
        return Step::applyRule;
    // At start, after an edit or after the switch went on, no rule means no change.
    return old ? Step::applyFallback : Step::nothing;
}
