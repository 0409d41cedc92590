#pragma once

#include <simdjson.h>

#include <cstddef>
#include <memory>

// The parsers the decoders work with, lent one per decode and taken back
// afterwards. A parser holds buffers of several times the size of the largest
// document it parsed. Making them afresh for every package file costs more
// than the parse itself (the kernel hands out and zeroes every page again),
// so a few parsers are kept for the next decodes: as many as the compiler
// decodes at once. A parser that grew for an unusually large document is let
// go instead, so that one odd file does not pin its memory for the life of
// the process.
namespace tamsel::model {

class JSONParserPool {
public:
    // Idle parsers kept at most.
    static constexpr std::size_t keptParsers = 2;
    // The largest document a kept parser may have grown for.
    static constexpr std::size_t keptCapacity = 32 * 1024 * 1024;

    // A parser for one decode; goes back to the pool when the lease ends.
    class Lease {
    public:
        explicit Lease(std::unique_ptr<simdjson::ondemand::parser> parser) : parser_(std::move(parser)) {}
        Lease(Lease&&) = default;
        Lease& operator=(Lease&&) = delete;
        ~Lease();

        simdjson::ondemand::parser& operator*() const { return *parser_; }
        simdjson::ondemand::parser* operator->() const { return parser_.get(); }

    private:
        std::unique_ptr<simdjson::ondemand::parser> parser_;
    };

    static Lease take();
};

}  // namespace tamsel::model
