#include "platform/QualityOfService.h"

#include <array>

namespace tamsel::platform {
namespace {

constexpr std::array kAllCases{QualityOfService::userInteractive, QualityOfService::userInitiated,
                               QualityOfService::defaultQoS, QualityOfService::utility,
                               QualityOfService::background};

}  // namespace

std::string_view rawValue(QualityOfService qos) {
    switch (qos) {
        case QualityOfService::userInteractive: return "userInteractive";
        case QualityOfService::userInitiated: return "userInitiated";
        case QualityOfService::defaultQoS: return "default";
        case QualityOfService::utility: return "utility";
        case QualityOfService::background: return "background";
    }
    return "default";
}

std::optional<QualityOfService> qualityOfServiceFromRawValue(std::string_view raw) {
    for (QualityOfService qos : kAllCases) {
        if (rawValue(qos) == raw) return qos;
    }
    return std::nullopt;
}

std::span<const QualityOfService> allQualityOfServiceCases() { return kAllCases; }

}  // namespace tamsel::platform
