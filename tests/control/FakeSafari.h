#pragma once

#include "platform/ContentBlockerManager.h"
#include "platform/DispatchQueue.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tamsel::testing {

// A content-blocker manager that answers from another thread, as Safari
// does, with scripted states and reload errors, and counts what it was asked.
class FakeSafari : public platform::ContentBlockerManager {
public:
    void reloadContentBlocker(const std::string& identifier, ReloadCompletion completion) override {
        std::optional<platform::PlatformError> error;
        std::chrono::milliseconds delay{0};
        {
            std::lock_guard lock(mutex_);
            reloads_.push_back(identifier);
            auto& queued = errors_[identifier];
            if (!queued.empty()) {
                error = queued.front();
                queued.pop_front();
            }
            delay = answerDelay_;
            mostReloadsInFlight_ = std::max(mostReloadsInFlight_, ++reloadsInFlight_);
        }
        platform::DispatchQueue::global().async([this, completion = std::move(completion), error, delay] {
            if (delay.count() > 0) std::this_thread::sleep_for(delay);
            {
                std::lock_guard lock(mutex_);
                --reloadsInFlight_;
            }
            completion(error);
        });
    }

    // Safari takes this long to answer each reload.
    void setAnswerDelay(std::chrono::milliseconds delay) {
        std::lock_guard lock(mutex_);
        answerDelay_ = delay;
    }

    // The most reloads that were asked and not yet answered at one moment.
    int mostReloadsInFlight() const {
        std::lock_guard lock(mutex_);
        return mostReloadsInFlight_;
    }

    void getStateOfContentBlocker(const std::string& identifier, StateCompletion completion) override {
        std::optional<platform::ContentBlockerState> state;
        std::optional<platform::PlatformError> error;
        {
            std::lock_guard lock(mutex_);
            ++stateQueries_;
            auto found = states_.find(identifier);
            if (found == states_.end() || found->second) {
                state = platform::ContentBlockerState{found == states_.end() || *found->second};
            } else {
                error = platform::PlatformError{"SFErrorDomain", 1, "No such extension", std::nullopt};
            }
        }
        platform::DispatchQueue::global().async(
            [completion = std::move(completion), state, error] { completion(state, error); });
    }

    // Enabled unless told otherwise; nothing: the state cannot be read.
    void setState(const std::string& identifier, std::optional<bool> enabled) {
        std::lock_guard lock(mutex_);
        states_[identifier] = enabled;
    }

    void failNext(const std::string& identifier, std::int64_t code, int times) {
        std::lock_guard lock(mutex_);
        for (int i = 0; i < times; ++i) {
            errors_[identifier].push_back(
                platform::PlatformError{code == 4097 ? "NSCocoaErrorDomain" : "SFErrorDomain", code,
                                        "Failure " + std::to_string(code), std::nullopt});
        }
    }

    std::vector<std::string> reloads() const {
        std::lock_guard lock(mutex_);
        return reloads_;
    }

    int reloadCount(const std::string& identifier) const {
        std::lock_guard lock(mutex_);
        int count = 0;
        for (const auto& reloaded : reloads_) count += reloaded == identifier;
        return count;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::optional<bool>> states_;
    std::map<std::string, std::deque<platform::PlatformError>> errors_;
    std::vector<std::string> reloads_;
    int stateQueries_ = 0;
    std::chrono::milliseconds answerDelay_{0};
    int reloadsInFlight_ = 0;
    int mostReloadsInFlight_ = 0;
};

}  // namespace tamsel::testing
