#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "platform/Value.h"

// The binary form in which the stores keep a value: exact for every type
// (dates to the microsecond, doubles bit for bit), unlike JSON.
//
//   boolean    'b' byte(0|1)
//   integer    'i' int64 (little endian)
//   real       'r' IEEE-754 bits as uint64
//   string     's' uint64 length, UTF-8 bytes
//   date       'u' int64 microseconds since 1970-01-01T00:00:00Z
//              ('t' int64 nanoseconds, written before, is still read)
//   data       'd' uint64 length, bytes
//   array      'a' uint64 count, values
//   dictionary 'o' uint64 count, (uint64 length, key bytes, value)…
//
// Another process writes these bytes, so decoding trusts nothing: lengths are
// checked against the input, and nesting is held to Value::maximumDepth.
namespace tamsel::platform {

// `value` must not nest deeper than Value::maximumDepth (the stores check).
std::string encodeValue(const Value& value);

// An error saying why when the bytes are not exactly one well-formed value
// within the depth limit.
std::expected<Value, std::string> decodeValue(std::string_view bytes);

}  // namespace tamsel::platform
