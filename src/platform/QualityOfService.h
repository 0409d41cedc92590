#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace tamsel::platform {

// How urgent a piece of work is. Queues and operation queues record it so that
// callers can state intent; the stand-in scheduler runs every class on the same
// worker pool, so it orders nothing by itself.
enum class QualityOfService { userInteractive, userInitiated, defaultQoS, utility, background };

// "userInteractive", "userInitiated", "default", "utility", "background".
std::string_view rawValue(QualityOfService qos);
std::optional<QualityOfService> qualityOfServiceFromRawValue(std::string_view raw);
// Every case, most urgent first.
std::span<const QualityOfService> allQualityOfServiceCases();

}  // namespace tamsel::platform
