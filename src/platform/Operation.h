#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tamsel::platform {

class OperationQueue;

// One unit of work with a life of its own: pending → executing → finished.
//
// Subclasses override main(). A synchronous operation is finished when main()
// returns. An asynchronous one (isAsynchronous() returns true) only starts its
// work in main() and stays executing until it calls finish(), from any thread.
//
// Cancelling only sets a flag: a running main() is expected to look at
// isCancelled(). An operation cancelled before it started never runs main(),
// ignores its unfinished dependencies, and is finished at once, so dependants
// and waiters go on.
//
// Operations are always held by std::shared_ptr (dependencies need it).
class Operation : public std::enable_shared_from_this<Operation> {
public:
    Operation();
    virtual ~Operation();

    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    virtual void main() {}
    virtual bool isAsynchronous() const { return false; }

    // Runs the operation on the calling thread. Queues call it; call it
    // yourself only for an operation that belongs to no queue. Starting an
    // operation twice is a fatal error.
    void start();

    void cancel();
    bool isCancelled() const;
    bool isExecuting() const;
    bool isFinished() const;
    // All dependencies finished (or this operation is cancelled).
    bool isReady() const;

    // This operation starts only after `dependency` has finished, whether the
    // dependency was cancelled or not. Works across queues.
    void addDependency(std::shared_ptr<Operation> dependency);
    void removeDependency(const std::shared_ptr<Operation>& dependency);
    std::vector<std::shared_ptr<Operation>> dependencies() const;

    // Runs on the finishing thread once the operation is finished (cancelled
    // or not), before waiters and dependants are released.
    void setCompletionBlock(std::function<void()> block);

    // Blocks until the operation is finished and its completion block has run.
    void waitUntilFinished();

    std::string name() const;
    void setName(std::string name);

protected:
    // Marks an asynchronous operation finished. Later calls do nothing.
    void finish();

private:
    friend class OperationQueue;

    // Hooks of the queue that holds the operation, run outside every lock:
    // `readinessChanged` when a dependency finishes or the operation is
    // cancelled or loses a dependency, `finished` once it has finished. Fails
    // when the operation already belongs to a queue or has started.
    bool attachToQueue(std::function<void()> readinessChanged, std::function<void()> finished);
    // Everything after the state became finished: completion block, waiters,
    // the queue, dependants.
    void settle();
    void notifyReadinessChanged();

    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// An operation that runs one block.
class BlockOperation : public Operation {
public:
    explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}
    static std::shared_ptr<BlockOperation> make(std::function<void()> block) {
        return std::make_shared<BlockOperation>(std::move(block));
    }

    void main() override {
        if (block_) block_();
    }

private:
    std::function<void()> block_;
};

}  // namespace tamsel::platform
