#pragma once

#include <map>
#include <string>
#include <vector>

#include "model/ExtensionType.h"
#include "platform/ContentRuleMatcher.h"

// The substitute Safari's loads of a page: the content blockers the user
// enabled, each with the matcher of its last successful reload, and the
// style sheet they give a page.
namespace tamsel::host {

struct EnabledContentBlockers {
    std::vector<platform::NamedContentRuleMatcher> lists;
    std::map<std::string, model::ExtensionType> types;  // by identifier

    // The raw extension types of `identifiers`, in their order.
    std::vector<std::string> extensionNames(const std::vector<std::string>& identifiers) const;
};

// Read afresh from the substitute content-blocker manager.
EnabledContentBlockers enabledContentBlockers();

// The selectors hidden on the page at `pageURL`: those of its own load, then
// the global style sheet of each list whose sheet applies to it.
std::vector<std::string> pageStyleSheet(const EnabledContentBlockers& blockers, const std::string& pageURL);

}  // namespace tamsel::host
