#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Faults the server plays on request, for tests of the client's error paths:
// the next N calls that match a rule are answered with its status, error code
// and retry-after, or held back by its delay before being served as usual.
// Set through the admin route on loopback only.
namespace tamsel::cloud {

struct FaultRule {
    // Empty matches anything.
    std::string endpoint;    // "records/modify", "changes/zone", …
    std::string database;    // "private" or "public"
    std::string zone;        // a zone the request names
    std::string recordName;  // a record the request names
    int count = 1;
    // No status: only the delay.
    std::optional<int> status;
    std::string serverErrorCode;
    std::string reason = "injected fault";
    std::optional<int> retryAfter;
    std::chrono::milliseconds delay{0};
};

struct FaultCall {
    std::string endpoint;
    std::string database;
    std::vector<std::string> zones;
    std::vector<std::string> recordNames;
};

class FaultInjector {
public:
    void add(FaultRule rule);
    void clear();
    // The rule that takes this call, counted down; none when no rule matches.
    std::optional<FaultRule> take(const FaultCall& call);

private:
    std::mutex mutex_;
    std::vector<FaultRule> rules_;
};

}  // namespace tamsel::cloud
