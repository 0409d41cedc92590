#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

// How a view model tells whoever renders it that something changed: the
// HTTP layer observes the popover and turns each event into a server-sent
// event; a test observes to count changes.
//
// Handlers run synchronously, in the order they were added, on the thread
// that reports the change (the main queue for every model of the popover).
// A handler may add or remove observers, its own included; the removal
// holds for the next change.
namespace tamsel::ui {

template <class Event>
class ChangeNotifier {
public:
    using Handler = std::function<void(const Event&)>;

    // Removes its handler when it goes (or at reset()). Outliving the
    // notifier is harmless.
    class Token {
    public:
        Token() = default;
        Token(Token&&) noexcept = default;
        Token& operator=(Token&& other) noexcept {
            if (this != &other) {
                reset();
                state_ = std::move(other.state_);
                id_ = other.id_;
            }
            return *this;
        }
        Token(const Token&) = delete;
        Token& operator=(const Token&) = delete;
        ~Token() { reset(); }

        void reset() {
            if (const auto state = state_.lock()) {
                std::lock_guard lock(state->mutex);
                state->handlers.erase(id_);
            }
            state_.reset();
        }

    private:
        friend class ChangeNotifier;
        Token(std::weak_ptr<typename ChangeNotifier::State> state, std::uint64_t id)
            : state_(std::move(state)), id_(id) {}
        std::weak_ptr<typename ChangeNotifier::State> state_;
        std::uint64_t id_ = 0;
    };

    [[nodiscard]] Token observe(Handler handler) {
        std::lock_guard lock(state_->mutex);
        const std::uint64_t id = ++state_->lastID;
        state_->handlers.emplace(id, std::move(handler));
        return Token(state_, id);
    }

    void notify(const Event& event) const {
        std::vector<Handler> handlers;
        {
            std::lock_guard lock(state_->mutex);
            for (const auto& [id, handler] : state_->handlers) handlers.push_back(handler);
        }
        for (const Handler& handler : handlers) handler(event);
    }

private:
    struct State {
        std::mutex mutex;
        std::uint64_t lastID = 0;
        std::map<std::uint64_t, Handler> handlers;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tamsel::ui
