#include "platform/OperationQueue.h"

#include "platform/DispatchQueue.h"
#include "platform/FatalError.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace tamsel::platform {

struct OperationQueue::State : std::enable_shared_from_this<State> {
    struct Entry {
        std::shared_ptr<Operation> operation;
        bool started = false;
        bool holdsSlot = false;  // counted against the concurrency limit
    };

    mutable std::mutex mutex;
    std::condition_variable emptied;
    std::string name;
    int maxConcurrent = defaultMaxConcurrentOperationCount;
    QualityOfService qos = QualityOfService::defaultQoS;
    std::vector<Entry> entries;  // in the order added; finished ones leave
    int running = 0;

    bool hasFreeSlot() const { return maxConcurrent < 0 || running < maxConcurrent; }

    // Starts, in the order added, every operation that may start now.
    // Cancelled operations that have not started are finished without a slot:
    // they never run main() and must not wait behind the limit.
    void scan() {
        std::vector<std::shared_ptr<Operation>> toStart;
        QualityOfService startQoS;
        {
            std::lock_guard lock(mutex);
            startQoS = qos;
            for (Entry& entry : entries) {
                if (entry.started) continue;
                if (entry.operation->isCancelled()) {
                    entry.started = true;
                } else if (hasFreeSlot() && entry.operation->isReady()) {
                    entry.started = true;
                    entry.holdsSlot = true;
                    ++running;
                } else {
                    continue;
                }
                toStart.push_back(entry.operation);
            }
        }
        for (auto& operation : toStart) {
            DispatchQueue::global(startQoS).async([operation = std::move(operation)] { operation->start(); });
        }
    }

    void operationFinished(const Operation* operation) {
        {
            std::lock_guard lock(mutex);
            auto it = std::find_if(entries.begin(), entries.end(),
                                   [operation](const Entry& e) { return e.operation.get() == operation; });
            if (it != entries.end()) {
                if (it->holdsSlot) --running;
                entries.erase(it);
            }
            if (entries.empty()) emptied.notify_all();
        }
        scan();
    }
};

OperationQueue::OperationQueue(std::string name) : state_(std::make_shared<State>()) {
    state_->name = std::move(name);
}

OperationQueue::~OperationQueue() {
    std::vector<std::shared_ptr<Operation>> notStarted;
    {
        std::lock_guard lock(state_->mutex);
        for (const auto& entry : state_->entries) {
            if (!entry.started) notStarted.push_back(entry.operation);
        }
    }
    // Cancelling tells the queue, which takes the lock again.
    for (const auto& operation : notStarted) operation->cancel();
    waitUntilAllOperationsAreFinished();
}

std::string OperationQueue::name() const {
    std::lock_guard lock(state_->mutex);
    return state_->name;
}

void OperationQueue::setName(std::string name) {
    std::lock_guard lock(state_->mutex);
    state_->name = std::move(name);
}

int OperationQueue::maxConcurrentOperationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->maxConcurrent;
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    {
        std::lock_guard lock(state_->mutex);
        state_->maxConcurrent = count;
    }
    state_->scan();
}

QualityOfService OperationQueue::qualityOfService() const {
    std::lock_guard lock(state_->mutex);
    return state_->qos;
}

void OperationQueue::setQualityOfService(QualityOfService qos) {
    std::lock_guard lock(state_->mutex);
    state_->qos = qos;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
    if (!operation) fatalError("OperationQueue \"" + name() + "\": null operation added");
    const std::weak_ptr<State> weakState = state_;
    const Operation* raw = operation.get();
    const bool attached = operation->attachToQueue(
        [weakState] {
            if (auto state = weakState.lock()) state->scan();
        },
        [weakState, raw] {
            if (auto state = weakState.lock()) state->operationFinished(raw);
        });
    if (!attached) {
        fatalError("OperationQueue \"" + name() + "\": operation \"" + operation->name() +
                   "\" was already added to a queue or started");
    }
    {
        std::lock_guard lock(state_->mutex);
        state_->entries.push_back({std::move(operation)});
    }
    state_->scan();
}

void OperationQueue::addOperation(std::function<void()> block) {
    addOperation(BlockOperation::make(std::move(block)));
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations()) operation->cancel();
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    std::unique_lock lock(state_->mutex);
    state_->emptied.wait(lock, [this] { return state_->entries.empty(); });
}

std::size_t OperationQueue::operationCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->entries.size();
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    std::lock_guard lock(state_->mutex);
    std::vector<std::shared_ptr<Operation>> result;
    result.reserve(state_->entries.size());
    for (const auto& entry : state_->entries) result.push_back(entry.operation);
    return result;
}

}  // namespace tamsel::platform
