#pragma once

#include "platform/Operation.h"
#include "platform/QualityOfService.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tamsel::platform {

// Runs operations on the shared worker pool.
//
// Operations whose dependencies have finished start in the order they were
// added, as long as fewer than maxConcurrentOperationCount run. An operation
// belongs to at most one queue, and adding one that was already added or
// started is a fatal error.
//
// Destroying the queue cancels the operations that have not started and waits
// until every operation it holds has finished.
class OperationQueue {
public:
    // No limit beyond the worker pool.
    static constexpr int defaultMaxConcurrentOperationCount = -1;

    explicit OperationQueue(std::string name = {});
    ~OperationQueue();

    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    std::string name() const;
    void setName(std::string name);

    // 0 holds every operation back; a negative count means no limit.
    int maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(int count);

    QualityOfService qualityOfService() const;
    void setQualityOfService(QualityOfService qos);

    void addOperation(std::shared_ptr<Operation> operation);
    // Wraps the block in a BlockOperation.
    void addOperation(std::function<void()> block);

    // Cancels every operation of the queue, running or not.
    void cancelAllOperations();
    // Blocks until the queue holds no operation (including ones added while
    // waiting).
    void waitUntilAllOperationsAreFinished();

    // Operations added and not yet finished.
    std::size_t operationCount() const;
    std::vector<std::shared_ptr<Operation>> operations() const;

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace tamsel::platform
