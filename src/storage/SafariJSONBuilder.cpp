#include "storage/SafariJSONBuilder.h"

#include "platform/FatalError.h"
#include "storage/PersistentStore.h"

#include <algorithm>

namespace tamsel::storage {

SafariJSONBuilder::SafariJSONBuilder(std::size_t expectedBytes)
    : buffer_(nullptr, std::max<std::size_t>(expectedBytes, 256)), writer_(buffer_) {
    writer_.StartArray();
}

void SafariJSONBuilder::add(const model::Blocker& blocker) {
    if (finished_) platform::fatalError("SafariJSONBuilder: add after finish");
    model::writeBlocker(writer_, blocker);
    ++count_;
}

std::string_view SafariJSONBuilder::finish() {
    if (!finished_) {
        if (count_ == 0) model::writeBlocker(writer_, PersistentStore::placeholderBlocker());
        writer_.EndArray();
        finished_ = true;
    }
    return {buffer_.GetString(), buffer_.GetSize()};
}

}  // namespace tamsel::storage
