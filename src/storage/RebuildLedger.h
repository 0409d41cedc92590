#pragma once

#include "model/ExtensionType.h"

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

// Which extensions still owe a rebuild: their Safari JSON file, or Safari's
// copy of it, may not yet reflect the packages and preferences on disk.
//
// A change marks the extensions it affects before it writes anything, and a
// rebuild settles an extension once its file is written from what was on
// disk and Safari reloaded it. So a process killed between the two, or a
// reload that failed for good, leaves the debt on record for the next writer
// to pay (see ExtensionManager::repairOwedRebuilds).
//
// Each debt carries a ticket, drawn from one counter: a rebuild takes the
// ticket when it starts reading, and settling with an older ticket than the
// one on record changes nothing, so a change made while a rebuild ran is
// never settled by that rebuild.
//
// Kept durably in the group container ("rebuilds-owed.txt", read-modify-write
// under "rebuilds-owed.lock"), so every program of the data root shares it.
// A file that cannot be read as a ledger counts as every extension owed.
namespace tamsel::storage {

class RebuildLedger {
public:
    RebuildLedger() = delete;

    using Ticket = std::uint64_t;

    static void owe(const std::vector<model::ExtensionType>& extensions);
    static void oweAll();

    // The ticket of the extension's debt; nothing when it owes none.
    static std::optional<Ticket> ticket(model::ExtensionType extension);

    // Clears the debt when its ticket is still `ticket`.
    static void settle(model::ExtensionType extension, Ticket ticket);
    // The same for several debts, in one write of the ledger.
    static void settle(const std::vector<std::pair<model::ExtensionType, Ticket>>& debts);

    // The extensions that owe a rebuild, in ExtensionType order.
    static std::vector<model::ExtensionType> owed();
};

}  // namespace tamsel::storage
