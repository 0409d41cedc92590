#include "handler/Popover.h"

#include "control/DataManager.h"
#include "model/SiteDomain.h"
#include "runtime/URLHost.h"
#include "ui/SiteState.h"

namespace tamsel::handler {

SiteStatePopover::SiteStatePopover(control::DataManager& dataManager) : dataManager_(dataManager) {}

void SiteStatePopover::refreshForCurrentPage(const PopoverContext& context) {
    whitelisted_ = false;
    needsPageReload_ = false;
    if (!context.currentPage || !context.currentPageURL) return;
    const auto host = runtime::urlHost(*context.currentPageURL);
    if (!host) return;
    const auto domain = model::domainForHost(*host);
    if (!domain) return;
    const auto state = ui::SiteState::read(dataManager_, *domain);
    whitelisted_ = state.whitelisting() == ui::SiteState::Whitelisting::fully ||
                   state.whitelisting() == ui::SiteState::Whitelisting::partially;
}

}  // namespace tamsel::handler
