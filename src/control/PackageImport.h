#pragma once

#include <optional>
#include <string>
#include <vector>

#include "model/Package.h"

// The check a shared package file passes before its import changes anything.
//
// A shared file is someone else's. A package in it that took a built-in
// identifier would stand beside the built-in package under the same
// identifier, and whatever finds packages by identifier (enable, disable,
// the disabled-state preferences) would find the wrong one. Rules are
// switched off, synced and replaced by identifier, so within a package each
// needs one of its own.
namespace tamsel::control {

// Why `packages` cannot be imported, or nothing when they can. Refused:
//  * a package without an identifier;
//  * a package with an identifier the catalogue gives to a package of its
//    own: a general extension's ("block-ads", ...), "block-international",
//    a regional list's ("block-german", ...), a configurable package's
//    ("whitelist", ...), and "block-custom";
//  * a rule without an identifier;
//  * a rule identifier that occurs twice in one package.
// The text names the first problem found and where; identifiers are quoted
// with control characters escaped, so it stays one line.
std::optional<std::string> importRefusal(const std::vector<model::Package>& packages);

}  // namespace tamsel::control
