#include "storage/SafariJSONBuilder.h"

#include "platform/FatalError.h"
#include "storage/PersistentStore.h"

#include <algorithm>
#include <utility>

namespace tamsel::storage {

EncodedEntries::EncodedEntries(std::size_t expectedBytes)
    : buffer_(nullptr, std::max<std::size_t>(expectedBytes, 256)), writer_(buffer_) {
    // The writer places the commas between the entries of a list; the
    // opening bracket is left out of the text.
    writer_.StartArray();
}

void EncodedEntries::add(const model::Blocker& blocker) {
    model::writeBlocker(writer_, blocker);
    ++count_;
}

std::string_view EncodedEntries::text() const {
    return std::string_view(buffer_.GetString(), buffer_.GetSize()).substr(1);
}

SafariJSONBuilder::SafariJSONBuilder(std::size_t expectedBytes) : expectedBytes_(expectedBytes) {}

void SafariJSONBuilder::add(const model::Blocker& blocker) {
    if (finished_) platform::fatalError("SafariJSONBuilder: add after finish");
    if (!open_) {
        open_ = std::make_shared<EncodedEntries>(std::exchange(expectedBytes_, 0));
        runs_.push_back(open_);
    }
    open_->add(blocker);
    ++count_;
}

void SafariJSONBuilder::add(std::shared_ptr<const EncodedEntries> entries) {
    if (finished_) platform::fatalError("SafariJSONBuilder: add after finish");
    if (!entries || entries->count() == 0) return;
    count_ += entries->count();
    runs_.push_back(std::move(entries));
    open_.reset();
}

std::vector<std::string_view> SafariJSONBuilder::finish() {
    if (!finished_ && count_ == 0) {
        add(PersistentStore::placeholderBlocker());
        count_ = 0;
    }
    finished_ = true;
    open_.reset();
    std::vector<std::string_view> pieces;
    pieces.reserve(2 * runs_.size() + 1);
    pieces.emplace_back("[");
    for (const auto& run : runs_) {
        if (run->count() == 0) continue;
        if (pieces.size() > 1) pieces.emplace_back(",");
        pieces.push_back(run->text());
    }
    pieces.emplace_back("]");
    return pieces;
}

}  // namespace tamsel::storage
