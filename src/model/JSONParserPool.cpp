#include "model/JSONParserPool.h"

#include <mutex>
#include <utility>
#include <vector>

namespace tamsel::model {

namespace {

struct Pool {
    std::mutex mutex;
    std::vector<std::unique_ptr<simdjson::ondemand::parser>> idle;
};

Pool& pool() {
    static Pool* instance = new Pool();  // used until the last decode of the process
    return *instance;
}

}  // namespace

JSONParserPool::Lease JSONParserPool::take() {
    Pool& shared = pool();
    {
        std::lock_guard lock(shared.mutex);
        if (!shared.idle.empty()) {
            auto parser = std::move(shared.idle.back());
            shared.idle.pop_back();
            return Lease(std::move(parser));
        }
    }
    return Lease(std::make_unique<simdjson::ondemand::parser>());
}

JSONParserPool::Lease::~Lease() {
    if (!parser_ || parser_->capacity() > keptCapacity) return;
    Pool& shared = pool();
    std::lock_guard lock(shared.mutex);
    if (shared.idle.size() < keptParsers) shared.idle.push_back(std::move(parser_));
}

}  // namespace tamsel::model
