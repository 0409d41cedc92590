#pragma once

#include "runtime/StoreError.h"

#include <SQLiteCpp/Database.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tamsel::runtime {

// The tables of the blocked-resource store and the upgrades from its earlier
// layouts. Dates are microseconds since 1970 UTC. Daily and hourly count
// tables, kept in step by a trigger inside the inserting transaction, let a
// count of any interval read a few thousand rows rather than every record.
//
// Layouts: 1 counted hours only; 2 added the day counts; 3 stores dates in
// microseconds instead of nanoseconds, whose 64 bits end in 2262; 4 finds a
// page's records through an index on page_key(pageURL), a 16-bit hash of the
// page's address, rather than by reading every record, and pays for that
// index by storing pageDomain only where it is not the page address's host
// (NULL: the host, or nothing for an address without one; an empty blob:
// absent although the address has a host).
namespace BlockedResourceSchema {

// "TMSL": marks the file as ours, so that a database of any other program left
// at our path is recognised as such and not mistaken for an old store.
inline constexpr std::int64_t applicationID = 0x544D534C;
inline constexpr std::int64_t version = 4;

// The page key of a page address: FNV-1a over its bytes, folded to a signed
// 16-bit number (two bytes in the index; a lookup also reads the records of
// the pages that share its key, a few dozen in three million). Part of the
// file format: the index holds these values, so they must never change.
std::int16_t pageKey(std::string_view pageURL);

// What the pageDomain column holds for a record's page address and domain,
// and the domain back from the column (see layout 4 above).
struct StoredPageDomain {
    enum class Kind { derived, absent, text } kind;
};
StoredPageDomain storedPageDomain(const std::optional<std::string>& pageURL,
                                  const std::optional<std::string>& pageDomain);

// One page's records in the order stored, found through the page index.
// The unary plus keeps the planner from putting the address into the key's
// expression (page_key(?1) = page_key(?1)), which would no longer match the
// index; records of another page with the same key are left out by it.
inline constexpr const char* pageRecordsSQL =
    "SELECT id, date, extensionID, blockedURL, pageURL, pageDomain FROM BlockedResource "
    "WHERE page_key(pageURL) = page_key(?1) AND +pageURL = ?1 ORDER BY rowid";

// Makes page_key(text) known to the connection. Every connection that
// writes records, or upgrades the store, needs it: the index is computed
// from it.
void registerFunctions(SQLite::Database& database);

// Creates the tables in an empty database and upgrades a store of an older
// layout in place, each in a write transaction that two processes may race
// for. Anything else fails: a database of ours from a newer version with
// SQLITE_CANTOPEN (to be left alone), any other file with SQLITE_NOTADB (to
// be moved aside). Nothing is written to a file that is refused.
std::optional<StoreError> prepare(SQLite::Database& database, const std::filesystem::path& path);

// Reads the ends of the table and its date index and the count tables, where
// a truncated or overwritten file shows its damage, so that it is found when
// the store opens rather than by the first statistics query.
std::optional<StoreError> probe(SQLite::Database& database, const std::filesystem::path& path);

}  // namespace BlockedResourceSchema

}  // namespace tamsel::runtime
