#include "platform/Operation.h"

#include "platform/FatalError.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>

namespace tamsel::platform {

struct Operation::Impl {
    enum class Phase { pending, executing, finished };

    mutable std::mutex mutex;
    std::condition_variable settledChanged;
    std::atomic<Phase> phase{Phase::pending};
    std::atomic<bool> cancelled{false};
    // Finished, completion block run: what waiters and dependants wait for.
    std::atomic<bool> settled{false};
    bool attached = false;
    std::string name;
    std::vector<std::shared_ptr<Operation>> dependencies;
    std::vector<std::weak_ptr<Operation>> dependants;
    std::function<void()> completionBlock;
    std::function<void()> readinessChanged;
    std::function<void()> finished;
};

Operation::Operation() : impl_(std::make_unique<Impl>()) {}

Operation::~Operation() = default;

void Operation::start() {
    using Phase = Impl::Phase;
    Phase expected = Phase::pending;
    if (impl_->cancelled.load()) {
        if (!impl_->phase.compare_exchange_strong(expected, Phase::finished)) {
            fatalError("Operation \"" + name() + "\" was started twice");
        }
        settle();
        return;
    }
    if (!impl_->phase.compare_exchange_strong(expected, Phase::executing)) {
        fatalError("Operation \"" + name() + "\" was started twice");
    }
    main();
    if (!isAsynchronous()) finish();
}

void Operation::finish() {
    auto expected = Impl::Phase::executing;
    if (impl_->phase.compare_exchange_strong(expected, Impl::Phase::finished)) settle();
}

void Operation::settle() {
    // The queue drops its reference while we are still here; an asynchronous
    // operation may be finished from a callback that holds nothing else.
    const std::shared_ptr<Operation> keepAlive = weak_from_this().lock();

    std::function<void()> completion;
    {
        std::lock_guard lock(impl_->mutex);
        completion = std::move(impl_->completionBlock);
        impl_->completionBlock = nullptr;
    }
    if (completion) completion();
    completion = nullptr;

    std::vector<std::weak_ptr<Operation>> dependants;
    std::function<void()> finished;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->settled = true;
        dependants = impl_->dependants;
        finished = std::move(impl_->finished);
        impl_->finished = nullptr;
        impl_->readinessChanged = nullptr;
        // Under the lock: a woken waiter may drop the operation at once.
        impl_->settledChanged.notify_all();
    }
    if (finished) finished();
    for (const auto& weak : dependants) {
        if (auto dependant = weak.lock()) dependant->notifyReadinessChanged();
    }
}

void Operation::notifyReadinessChanged() {
    std::function<void()> hook;
    {
        std::lock_guard lock(impl_->mutex);
        hook = impl_->readinessChanged;
    }
    if (hook) hook();
}

bool Operation::attachToQueue(std::function<void()> readinessChanged, std::function<void()> finished) {
    std::lock_guard lock(impl_->mutex);
    if (impl_->attached || impl_->phase.load() != Impl::Phase::pending) return false;
    impl_->attached = true;
    impl_->readinessChanged = std::move(readinessChanged);
    impl_->finished = std::move(finished);
    return true;
}

void Operation::cancel() {
    if (impl_->cancelled.exchange(true)) return;
    if (impl_->phase.load() == Impl::Phase::pending) notifyReadinessChanged();
}

bool Operation::isCancelled() const { return impl_->cancelled.load(); }

bool Operation::isExecuting() const { return impl_->phase.load() == Impl::Phase::executing; }

bool Operation::isFinished() const { return impl_->phase.load() == Impl::Phase::finished; }

bool Operation::isReady() const {
    if (isCancelled()) return true;
    std::lock_guard lock(impl_->mutex);
    return std::all_of(impl_->dependencies.begin(), impl_->dependencies.end(),
                       [](const auto& dependency) { return dependency->impl_->settled.load(); });
}

void Operation::addDependency(std::shared_ptr<Operation> dependency) {
    if (!dependency || dependency.get() == this) {
        fatalError("Operation \"" + name() + "\": invalid dependency");
    }
    const std::weak_ptr<Operation> self = weak_from_this();
    if (self.expired()) fatalError("Operation \"" + name() + "\" must be held by a std::shared_ptr");
    bool alreadySettled = false;
    {
        std::lock_guard lock(dependency->impl_->mutex);
        if (dependency->impl_->settled.load()) {
            alreadySettled = true;
        } else {
            dependency->impl_->dependants.push_back(self);
        }
    }
    {
        std::lock_guard lock(impl_->mutex);
        impl_->dependencies.push_back(std::move(dependency));
    }
    // The dependency finished before it could tell us; a queue that skipped us
    // meanwhile would otherwise never look again.
    if (alreadySettled) notifyReadinessChanged();
}

void Operation::removeDependency(const std::shared_ptr<Operation>& dependency) {
    {
        std::lock_guard lock(impl_->mutex);
        std::erase(impl_->dependencies, dependency);
    }
    notifyReadinessChanged();
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->dependencies;
}

void Operation::setCompletionBlock(std::function<void()> block) {
    std::lock_guard lock(impl_->mutex);
    impl_->completionBlock = std::move(block);
}

void Operation::waitUntilFinished() {
    std::unique_lock lock(impl_->mutex);
    impl_->settledChanged.wait(lock, [this] { return impl_->settled.load(); });
}

std::string Operation::name() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->name;
}

void Operation::setName(std::string name) {
    std::lock_guard lock(impl_->mutex);
    impl_->name = std::move(name);
}

}  // namespace tamsel::platform
