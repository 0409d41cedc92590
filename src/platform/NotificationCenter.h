#pragma once

#include "platform/DispatchQueue.h"

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace tamsel::platform {

using UserInfo = std::map<std::string, std::any>;

struct Notification {
    std::string name;
    std::any object;
    UserInfo userInfo;

    // The user-info value under `key` if it is there and holds a T.
    template <class T>
    const T* userInfoValue(std::string_view key) const {
        auto it = userInfo.find(std::string(key));
        return it == userInfo.end() ? nullptr : std::any_cast<T>(&it->second);
    }
};

class ObserverToken;

// Delivers notifications by name to the observers registered for that name
// (an observer of the empty name receives every notification), in the order
// the observers were added.
//
// An observer with a queue gets each notification as a block on that queue;
// an observer without one is called synchronously on the posting thread.
// Handlers may post and may add or remove observers, their own included.
//
// Once removeObserver() has returned, the handler is not called again: queued
// deliveries check that the observer is still registered when they run, and a
// call in progress on another thread is waited for (a call in progress on the
// removing thread itself is not, so removal from inside the handler is fine).
class NotificationCenter {
public:
    NotificationCenter();
    ~NotificationCenter();

    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The process-wide centre; lives for the whole process.
    static NotificationCenter& defaultCenter();

    void post(Notification notification);
    void post(std::string name, std::any object = {}, UserInfo userInfo = {});

    // `queue` may be null (synchronous delivery). A queue destroyed while the
    // observer is registered receives no more deliveries.
    [[nodiscard]] ObserverToken addObserver(std::string name, DispatchQueue* queue,
                                            std::function<void(const Notification&)> handler);
    void removeObserver(const ObserverToken& token);

    struct State;

private:
    std::shared_ptr<State> state_;
};

// Owns one registration: destroying or reassigning the token removes the
// observer. Tokens may outlive their centre.
class ObserverToken {
public:
    ObserverToken() = default;
    ~ObserverToken();
    ObserverToken(ObserverToken&& other) noexcept;
    ObserverToken& operator=(ObserverToken&& other) noexcept;
    ObserverToken(const ObserverToken&) = delete;
    ObserverToken& operator=(const ObserverToken&) = delete;

    // Removes the observer now; the token becomes empty.
    void remove();
    // Gives up ownership: the observer stays registered for the centre's life.
    void release();
    // Holds a registration that it has not removed or released.
    bool isActive() const { return id_ != 0; }

private:
    friend class NotificationCenter;
    ObserverToken(std::weak_ptr<NotificationCenter::State> center, std::uint64_t id)
        : center_(std::move(center)), id_(id) {}

    std::weak_ptr<NotificationCenter::State> center_;
    std::uint64_t id_ = 0;
};

}  // namespace tamsel::platform
