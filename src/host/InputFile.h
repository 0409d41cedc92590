#pragma once

#include <simdjson.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>

// Reading a file named on the command line, with the checks that turn every
// bad input into one readable reason instead of a crash or a vague error.
namespace tamsel::host {

// Large enough for any real filter list (tens of MB), small enough that a
// wrong file cannot take the machine's memory.
inline constexpr std::uintmax_t defaultMaximumInputSize = 256ull * 1024 * 1024;

// The whole file, padded for the JSON parser; "-" reads standard input. Fails with a reason such as
// "no such file", "is a directory", "is empty" or
// "is 300000000 bytes, more than the limit of 268435456".
std::expected<simdjson::padded_string, std::string> loadInputFile(const std::filesystem::path& path,
                                                                  std::uintmax_t maximumSize = defaultMaximumInputSize);

}  // namespace tamsel::host
