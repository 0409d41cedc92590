#include "platform/DispatchQueue.h"

#include "platform/FatalError.h"
#include "platform/MainRunLoop.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace tamsel::platform {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

// Worker threads shared by every queue. A worker is added whenever more tasks
// wait than workers idle, so blocks that wait on other work (groups, sync onto
// another queue) cannot starve it; idle workers leave after a while.
class WorkerPool {
public:
    static constexpr int kMaxWorkers = 64;
    static constexpr auto kIdleTimeout = 5s;

    static WorkerPool& shared() {
        // Never destroyed: detached workers may outlive static destruction.
        static WorkerPool* pool = new WorkerPool;
        return *pool;
    }

    void submit(std::function<void()> task) {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
        if (static_cast<int>(tasks_.size()) > idle_ && workers_ < kMaxWorkers) spawnWorker();
        available_.notify_one();
    }

private:
    void spawnWorker() {
        try {
            std::thread([this] { work(); }).detach();
            ++workers_;
        } catch (const std::system_error&) {
            // Fewer workers only slow things down, but with none nothing runs.
            if (workers_ == 0) fatalError("WorkerPool: cannot start a worker thread");
        }
    }

    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (tasks_.empty()) {
                ++idle_;
                const bool woken =
                    available_.wait_for(lock, kIdleTimeout, [this] { return !tasks_.empty(); });
                --idle_;
                if (!woken) {
                    --workers_;
                    return;
                }
            }
            std::function<void()> task = std::move(tasks_.front());
            tasks_.pop_front();
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable available_;
    std::deque<std::function<void()>> tasks_;
    int idle_ = 0;
    int workers_ = 0;
};

// One thread that hands delayed blocks to their queues when they are due.
class Timer {
public:
    static Timer& shared() {
        static Timer* timer = new Timer;
        return *timer;
    }

    void schedule(SteadyClock::time_point deadline, std::function<void()> fire) {
        {
            std::lock_guard lock(mutex_);
            entries_.emplace(Key{deadline, nextSequence_++}, std::move(fire));
            if (!started_) {
                std::thread([this] { loop(); }).detach();
                started_ = true;
            }
        }
        changed_.notify_one();
    }

private:
    using Key = std::pair<SteadyClock::time_point, std::uint64_t>;

    void loop() {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (entries_.empty()) {
                changed_.wait(lock);
                continue;
            }
            auto first = entries_.begin();
            if (first->first.first > SteadyClock::now()) {
                changed_.wait_until(lock, first->first.first);
                continue;
            }
            std::function<void()> fire = std::move(first->second);
            entries_.erase(first);
            lock.unlock();
            fire();
            fire = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<Key, std::function<void()>> entries_;
    std::uint64_t nextSequence_ = 0;
    bool started_ = false;
};

}  // namespace

struct DispatchQueue::Core : std::enable_shared_from_this<Core> {
    Core(std::string label, Kind kind, QualityOfService qos)
        : label(std::move(label)), kind(kind), qos(qos) {}
    virtual ~Core() = default;

    virtual void submit(std::function<void()> block, bool barrier) = 0;
    virtual void runSync(const std::function<void()>& block) = 0;
    // Stops taking work and waits for what was taken.
    virtual void shutDown() {}

    const std::string label;
    const Kind kind;
    const QualityOfService qos;
};

namespace {

using Core = DispatchQueue::Core;

// The queues whose blocks the current thread is running, and whether each
// block runs exclusively (serial or barrier): a stack of the marks on the
// thread's own stack, innermost first. A plain pointer, not a container, so
// that nothing of it is destroyed at thread or process exit (a queue used by a
// static's destructor still finds it).
struct RunningBlock {
    const Core* core;
    bool exclusive;
    const RunningBlock* outer;
};
thread_local const RunningBlock* innermostBlock = nullptr;

const RunningBlock* runningBlockOf(const Core* core) {
    for (const RunningBlock* block = innermostBlock; block; block = block->outer) {
        if (block->core == core) return block;
    }
    return nullptr;
}

class RunningMark {
public:
    RunningMark(const Core* core, bool exclusive) : block_{core, exclusive, innermostBlock} { innermostBlock = &block_; }
    ~RunningMark() { innermostBlock = block_.outer; }
    RunningMark(const RunningMark&) = delete;
    RunningMark& operator=(const RunningMark&) = delete;

private:
    RunningBlock block_;
};

// A serial or concurrent queue whose blocks run on the worker pool.
class PoolCore final : public Core {
public:
    PoolCore(std::string label, DispatchQueue::Kind kind, QualityOfService qos, bool honoursBarriers)
        : Core(std::move(label), kind, qos), honoursBarriers_(honoursBarriers) {}

    void submit(std::function<void()> block, bool barrier) override {
        std::function<void()> dropped;  // destroyed after the lock is released
        std::lock_guard lock(mutex_);
        if (closed_) {
            dropped = std::move(block);
            return;
        }
        items_.push_back({std::move(block), isExclusive(barrier), nullptr});
        pump();
    }

    void runSync(const std::function<void()>& block) override {
        if (const RunningBlock* running = runningBlockOf(this)) {
            if (running->exclusive) {
                fatalError("DispatchQueue \"" + label +
                           "\": sync called from a block running on the same queue would deadlock");
            }
            // A reader of a concurrent queue reading again: it already holds a
            // shared slot, so waiting behind a later barrier would deadlock.
            RunningMark mark(this, false);
            block();
            return;
        }
        const bool exclusive = isExclusive(false);
        {
            std::unique_lock lock(mutex_);
            if (items_.empty() && canStart(exclusive)) {
                markStarted(exclusive);
            } else {
                Ticket ticket;
                items_.push_back({nullptr, exclusive, &ticket});
                ticket.granted.wait(lock, [&ticket] { return ticket.isGranted; });
            }
        }
        struct Release {
            PoolCore* core;
            bool exclusive;
            ~Release() { core->finished(exclusive); }
        } release{this, exclusive};
        RunningMark mark(this, exclusive);
        block();
    }

    void shutDown() override {
        std::unique_lock lock(mutex_);
        closed_ = true;
        if (runningBlockOf(this)) return;  // our own block: the rest runs later
        idle_.wait(lock, [this] { return isIdle(); });
    }

private:
    struct Ticket {
        std::condition_variable granted;
        bool isGranted = false;
    };
    struct Item {
        std::function<void()> block;
        bool exclusive;
        Ticket* ticket;  // set for a waiting sync caller
    };

    bool isExclusive(bool barrier) const {
        return kind == DispatchQueue::Kind::serial || (barrier && honoursBarriers_);
    }
    bool canStart(bool exclusive) const {
        if (exclusiveRunning_) return false;
        return !exclusive || sharedRunning_ == 0;
    }
    void markStarted(bool exclusive) {
        if (exclusive) {
            exclusiveRunning_ = true;
        } else {
            ++sharedRunning_;
        }
    }
    bool isIdle() const { return items_.empty() && sharedRunning_ == 0 && !exclusiveRunning_; }

    // Starts blocks from the front for as long as the queue's rules allow; the
    // caller holds the mutex.
    void pump() {
        while (!items_.empty() && canStart(items_.front().exclusive)) {
            Item item = std::move(items_.front());
            items_.pop_front();
            markStarted(item.exclusive);
            if (item.ticket) {
                item.ticket->isGranted = true;
                item.ticket->granted.notify_one();
                continue;
            }
            WorkerPool::shared().submit(
                [self = std::static_pointer_cast<PoolCore>(shared_from_this()),
                 block = std::move(item.block), exclusive = item.exclusive]() mutable {
                    self->execute(block, exclusive);
                });
        }
    }

    void execute(std::function<void()>& block, bool exclusive) {
        {
            RunningMark mark(this, exclusive);
            block();
            block = nullptr;
        }
        finished(exclusive);
    }

    void finished(bool exclusive) {
        std::lock_guard lock(mutex_);
        if (exclusive) {
            exclusiveRunning_ = false;
        } else {
            --sharedRunning_;
        }
        pump();
        if (isIdle()) idle_.notify_all();
    }

    const bool honoursBarriers_;
    std::mutex mutex_;
    std::condition_variable idle_;
    std::deque<Item> items_;
    int sharedRunning_ = 0;
    bool exclusiveRunning_ = false;
    bool closed_ = false;
};

// The main queue: blocks go to the run loop that the host drives.
class MainCore final : public Core {
public:
    MainCore() : Core("main", DispatchQueue::Kind::serial, QualityOfService::userInteractive) {}

    void submit(std::function<void()> block, bool) override { MainRunLoop::post(std::move(block)); }

    void runSync(const std::function<void()>& block) override {
        if (MainRunLoop::isMainThread()) {
            block();
            return;
        }
        std::mutex mutex;
        std::condition_variable doneChanged;
        bool done = false;
        std::exception_ptr failure;
        MainRunLoop::post([&] {
            try {
                block();
            } catch (...) {
                failure = std::current_exception();
            }
            std::lock_guard lock(mutex);
            done = true;
            doneChanged.notify_one();
        });
        std::unique_lock lock(mutex);
        doneChanged.wait(lock, [&] { return done; });
        if (failure) std::rethrow_exception(failure);
    }
};

}  // namespace

DispatchQueue::DispatchQueue(std::string label, Kind kind, QualityOfService qos)
    : core_(std::make_shared<PoolCore>(std::move(label), kind, qos, true)) {}

DispatchQueue::DispatchQueue(std::shared_ptr<Core> core) : core_(std::move(core)) {}

DispatchQueue::~DispatchQueue() { core_->shutDown(); }

DispatchQueue& DispatchQueue::main() {
    // Never destroyed, like every process-wide queue.
    static DispatchQueue* queue = new DispatchQueue(std::make_shared<MainCore>());
    return *queue;
}

DispatchQueue& DispatchQueue::global(QualityOfService qos) {
    static const auto queues = [] {
        std::array<DispatchQueue*, 5> result{};
        for (QualityOfService each : allQualityOfServiceCases()) {
            result[static_cast<std::size_t>(each)] = new DispatchQueue(std::make_shared<PoolCore>(
                "global." + std::string(rawValue(each)), Kind::concurrent, each, false));
        }
        return result;
    }();
    return *queues.at(static_cast<std::size_t>(qos));
}

bool DispatchQueue::isMainThread() { return MainRunLoop::isMainThread(); }

void DispatchQueue::async(std::function<void()> block) { core_->submit(std::move(block), false); }

void DispatchQueue::asyncBarrier(std::function<void()> block) { core_->submit(std::move(block), true); }

void DispatchQueue::asyncAfter(std::chrono::steady_clock::duration delay, std::function<void()> block) {
    Timer::shared().schedule(SteadyClock::now() + delay,
                             [target = std::weak_ptr<Core>(core_), block = std::move(block)]() mutable {
                                 if (auto core = target.lock()) core->submit(std::move(block), false);
                             });
}

void DispatchQueue::runSync(const std::function<void()>& block) { core_->runSync(block); }

const std::string& DispatchQueue::label() const { return core_->label; }

DispatchQueue::Kind DispatchQueue::kind() const { return core_->kind; }

QualityOfService DispatchQueue::qualityOfService() const { return core_->qos; }

void DispatchQueue::Handle::async(std::function<void()> block) const {
    if (!core_) fatalError("DispatchQueue::Handle: async on an empty handle");
    core_->submit(std::move(block), false);
}

}  // namespace tamsel::platform
