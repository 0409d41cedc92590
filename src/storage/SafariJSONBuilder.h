#pragma once

#include <cstddef>
#include <string_view>

#include "model/Blocker.h"
#include "model/JSONWriting.h"

// A Safari JSON file in the making. Entries are encoded as they are added, so
// that a list of a hundred thousand entries never exists as records: the
// compiler adds blockers straight from the rules that hold them, even while
// their package file is still being read. PersistentStore writes the result.
namespace tamsel::storage {

class SafariJSONBuilder {
public:
    // `expectedBytes` sizes the buffer up front (the package file's size is a
    // good guess); a guess that is too small only costs regrowth.
    explicit SafariJSONBuilder(std::size_t expectedBytes = 0);

    SafariJSONBuilder(const SafariJSONBuilder&) = delete;
    SafariJSONBuilder& operator=(const SafariJSONBuilder&) = delete;

    // Adds an entry after those added before. May throw std::bad_alloc.
    void add(const model::Blocker& blocker);
    // The entries added so far.
    std::size_t count() const { return count_; }

    // The whole list: the entries in the order added, or the placeholder
    // entry alone when there were none (Safari refuses an empty list). Ends
    // the adding; the text stays valid while the builder lives.
    std::string_view finish();

private:
    rapidjson::StringBuffer buffer_;
    model::JSONWriter writer_;
    std::size_t count_ = 0;
    bool finished_ = false;
};

}  // namespace tamsel::storage
