#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The one source of UUIDs (libuuid). Text is the standard 36-character form
// in upper case, as Foundation's UUID().uuidString writes it.
namespace tamsel::platform {

using UUIDBytes = std::array<std::uint8_t, 16>;

// A fresh random (version 4) UUID in upper-case text.
std::string newUUIDString();

// The 16 bytes of a UUID in its standard text form (either case); none for anything else.
std::optional<UUIDBytes> parseUUID(std::string_view text);
// The upper-case text form of 16 bytes.
std::string uuidString(const UUIDBytes& bytes);

}  // namespace tamsel::platform
