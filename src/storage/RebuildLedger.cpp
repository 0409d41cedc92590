#include "storage/RebuildLedger.h"

#include "platform/Files.h"
#include "platform/InterProcessMutex.h"
#include "platform/Log.h"
#include "storage/PathProvider.h"

#include <charconv>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace tamsel::storage {

namespace {

using model::ExtensionType;

const platform::SystemLogger logger("Files");

constexpr char ledgerFileName[] = "rebuilds-owed.txt";
constexpr char lockFileName[] = "rebuilds-owed.lock";
constexpr std::string_view nextKey = "next";

// One line a debt, "<extension raw value> <ticket>", after a line
// "next <ticket>" that gives the ticket the next debt takes.
struct Ledger {
    RebuildLedger::Ticket next = 1;
    std::map<ExtensionType, RebuildLedger::Ticket> debts;
};

std::optional<RebuildLedger::Ticket> parseTicket(std::string_view text) {
    RebuildLedger::Ticket value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<Ledger> parse(std::string_view text) {
    Ledger ledger;
    while (!text.empty()) {
        const auto newline = text.find('\n');
        const std::string_view line = text.substr(0, newline);
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
        if (line.empty()) continue;
        const auto space = line.find(' ');
        if (space == std::string_view::npos) return std::nullopt;
        const auto ticket = parseTicket(line.substr(space + 1));
        if (!ticket) return std::nullopt;
        const std::string_view name = line.substr(0, space);
        if (name == nextKey) {
            ledger.next = *ticket;
            continue;
        }
        const auto extension = model::fromRawValue<ExtensionType>(name);
        if (!extension) return std::nullopt;
        ledger.debts[*extension] = *ticket;
    }
    for (const auto& [extension, ticket] : ledger.debts) {
        if (ticket >= ledger.next) return std::nullopt;
    }
    return ledger;
}

std::filesystem::path ledgerPath() { return PathProvider::sharedContainerURL() / ledgerFileName; }

Ledger read() {
    auto bytes = platform::readFile(ledgerPath());
    if (!bytes) {
        if (bytes.error() == std::errc::no_such_file_or_directory) return {};
    } else if (auto ledger = parse(*bytes)) {
        return *ledger;
    }
    // Whatever it said is lost: rebuilding everything once is always right.
    logger.error("Can't read %s; every extension is taken to owe a rebuild", ledgerPath().c_str());
    Ledger everything;
    for (ExtensionType extension : model::allCases<ExtensionType>()) everything.debts[extension] = 0;
    return everything;
}

void write(const Ledger& ledger) {
    std::string text = std::string(nextKey) + " " + std::to_string(ledger.next) + "\n";
    for (const auto& [extension, ticket] : ledger.debts) {
        text.append(model::rawValue(extension)).append(" ").append(std::to_string(ticket)).append("\n");
    }
    if (auto written = platform::writeFileAtomically(ledgerPath(), text); !written) {
        logger.error("Can't write %s: %s", ledgerPath().c_str(), written.error().message().c_str());
    }
}

template <class Change>
void update(Change&& change) {
    platform::InterProcessMutex processes(PathProvider::sharedContainerURL() / lockFileName);
    std::lock_guard lock(processes);
    Ledger ledger = read();
    if (change(ledger)) write(ledger);
}

}  // namespace

void RebuildLedger::owe(const std::vector<ExtensionType>& extensions) {
    if (extensions.empty()) return;
    update([&](Ledger& ledger) {
        const Ticket ticket = ledger.next++;
        for (ExtensionType extension : extensions) ledger.debts[extension] = ticket;
        return true;
    });
}

void RebuildLedger::oweAll() {
    const auto all = model::allCases<ExtensionType>();
    owe(std::vector<ExtensionType>(all.begin(), all.end()));
}

std::optional<RebuildLedger::Ticket> RebuildLedger::ticket(ExtensionType extension) {
    const Ledger ledger = read();
    const auto debt = ledger.debts.find(extension);
    if (debt == ledger.debts.end()) return std::nullopt;
    return debt->second;
}

void RebuildLedger::settle(ExtensionType extension, Ticket ticket) { settle({{extension, ticket}}); }

void RebuildLedger::settle(const std::vector<std::pair<ExtensionType, Ticket>>& debts) {
    if (debts.empty()) return;
    update([&](Ledger& ledger) {
        bool changed = false;
        for (const auto& [extension, ticket] : debts) {
            const auto debt = ledger.debts.find(extension);
            if (debt == ledger.debts.end() || debt->second != ticket) continue;
            ledger.debts.erase(debt);
            changed = true;
        }
        return changed;
    });
}

std::vector<ExtensionType> RebuildLedger::owed() {
    std::vector<ExtensionType> extensions;
    for (const auto& [extension, ticket] : read().debts) extensions.push_back(extension);
    return extensions;
}

}  // namespace tamsel::storage
