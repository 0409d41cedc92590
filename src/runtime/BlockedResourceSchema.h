#pragma once

#include "runtime/StoreError.h"

#include <SQLiteCpp/Database.h>

#include <cstdint>
#include <filesystem>
#include <optional>

namespace tamsel::runtime {

// The tables of the blocked-resource store and the upgrades from its earlier
// layouts. Dates are microseconds since 1970 UTC. Daily and hourly count
// tables, kept in step by a trigger inside the inserting transaction, let a
// count of any interval read a few thousand rows rather than every record.
//
// Layouts: 1 counted hours only; 2 added the day counts; 3 stores dates in
// microseconds instead of nanoseconds, whose 64 bits end in 2262.
namespace BlockedResourceSchema {

// "TMSL": marks the file as ours, so that a database of any other program left
// at our path is recognised as such and not mistaken for an old store.
inline constexpr std::int64_t applicationID = 0x544D534C;
inline constexpr std::int64_t version = 3;

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
