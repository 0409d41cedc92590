#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tamsel::runtime {

// The host of an absolute URL ("https://user@Example.com:8080/a" gives
// "Example.com", an IPv6 literal loses its brackets), absent when the URL has
// no authority or an empty host ("about:blank", "file:///tmp").
std::optional<std::string> urlHost(std::string_view url);

}  // namespace tamsel::runtime
