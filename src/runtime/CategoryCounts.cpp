#include "runtime/CategoryCounts.h"

namespace tamsel::runtime {

CategoryCounts categoryCounts(const ExtensionCounts& counts) {
    CategoryCounts categories;
    for (const auto& [type, count] : counts) {
        switch (type) {
            case model::ExtensionType::blockAds:
            case model::ExtensionType::regionalRules: categories.ads += count; break;
            case model::ExtensionType::blockTrackers: categories.trackers += count; break;
            case model::ExtensionType::blockAnnoyances:
            case model::ExtensionType::blockSocial:
            case model::ExtensionType::blockComments:
            case model::ExtensionType::blockAdult:
            case model::ExtensionType::customRules: categories.others += count; break;
        }
    }
    return categories;
}

}  // namespace tamsel::runtime
