#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "model/Blocker.h"
#include "model/JSONWriting.h"

// A Safari JSON file in the making. Entries are encoded as they are added, so
// that a list of a hundred thousand entries never exists as records: the
// compiler adds blockers straight from the rules that hold them, even while
// their package file is still being read. PersistentStore writes the result.
namespace tamsel::storage {

// A run of entries encoded once, to be placed into files as it stands: the
// compiler keeps what each package contributed to its extension's file, so
// that a change elsewhere does not encode the package's rules again. Encoded
// entries are the same bytes wherever they stand in a list, so a file put
// together from runs is the file that adding the entries one by one gives.
class EncodedEntries {
public:
    // `expectedBytes` sizes the buffer up front; a guess that is too small
    // only costs regrowth.
    explicit EncodedEntries(std::size_t expectedBytes = 0);

    EncodedEntries(const EncodedEntries&) = delete;
    EncodedEntries& operator=(const EncodedEntries&) = delete;

    // Adds an entry after those added before. May throw std::bad_alloc.
    void add(const model::Blocker& blocker);
    std::size_t count() const { return count_; }
    // The entries separated by commas, without the list's brackets.
    std::string_view text() const;
    // Gives back the room reserved beyond the text, for a run that is kept.
    void shrinkToFit() { buffer_.ShrinkToFit(); }

private:
    rapidjson::StringBuffer buffer_;
    model::JSONWriter writer_;
    std::size_t count_ = 0;
};

class SafariJSONBuilder {
public:
    // `expectedBytes` sizes the buffer of the entries added one by one.
    explicit SafariJSONBuilder(std::size_t expectedBytes = 0);

    SafariJSONBuilder(const SafariJSONBuilder&) = delete;
    SafariJSONBuilder& operator=(const SafariJSONBuilder&) = delete;

    // Adds an entry after those added before. May throw std::bad_alloc.
    void add(const model::Blocker& blocker);
    // Adds a run of encoded entries after those added before; the run is
    // shared, not copied, and must not change any more.
    void add(std::shared_ptr<const EncodedEntries> entries);
    // The entries added so far.
    std::size_t count() const { return count_; }

    // The whole list, as pieces to be written one after the other: the
    // entries in the order added, or the placeholder entry alone when there
    // were none (Safari refuses an empty list). Ends the adding; the pieces
    // stay valid while the builder lives.
    std::vector<std::string_view> finish();

private:
    std::size_t expectedBytes_;
    std::vector<std::shared_ptr<const EncodedEntries>> runs_;
    // The run that entries added one by one go to, while it is the last.
    std::shared_ptr<EncodedEntries> open_;
    std::size_t count_ = 0;
    bool finished_ = false;
};

}  // namespace tamsel::storage
