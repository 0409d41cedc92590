#include "model/Rule.h"

#include <algorithm>

#include "platform/Log.h"

namespace tamsel::model {

Rule::Rule(std::string id, std::string name, Blocker blocker, std::vector<ExtensionType> partiallyWhitelistIn)
    : id(std::move(id)), name(std::move(name)), blocker(std::move(blocker)) {
    if (this->blocker.action.type == ActionType::ignorePreviousRules) {
        partialWhitelist = std::move(partiallyWhitelistIn);
    } else if (!partiallyWhitelistIn.empty()) {
        platform::consolePrint("* Warning * setting partialWhitelist for non-whitelist rule, WTF?");
    }
}

bool Rule::isWhitelist(ExtensionType type) const {
    if (blocker.action.type != ActionType::ignorePreviousRules) return false;
    return partialWhitelist.empty() || std::ranges::find(partialWhitelist, type) != partialWhitelist.end();
}

}  // namespace tamsel::model
