#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "model/RawRepresentable.h"
#include "platform/Clock.h"
#include "updates/ArchivePacker.h"
#include "updates/MetadataManifest.h"

// A filter server for development and tests, on the loopback interface only
// (127.0.0.1). It publishes the files at the top level of a folder (every
// regular file whose name does not begin with ".") as the rule archive:
//
//   GET /v4/metadata        the manifest as an XML property list
//                           ("id", "date", "size")
//   GET|HEAD /v4/data.zip   the password-protected archive, with
//                           "Last-Modified" and "Content-Length"
//
// The publication date is the newest modification time of the files (whole
// seconds), unless one is set; "Last-Modified" carries the same time. Every
// request checks the files' names, sizes and modification times and re-packs
// the archive when they changed.
//
// For tests each endpoint can be told to misbehave (see Fault).
namespace tamsel::updates {

class FilterServer {
public:
    enum class Endpoint { metadata, archive };

    enum class Fault {
        none,
        notFound,              // answers 404
        serverError,           // answers 500
        resetMidTransfer,      // sends half the body, then drops the connection
        noAnswer,              // accepts the request and never answers (until released or stopped)
        notAPropertyList,      // metadata: a body that is no property list
        truncatedArchive,      // archive: the first half of the archive, as if it were whole
        wrongPasswordArchive,  // archive: encrypted with another password
        zipSlipArchive,        // archive: the files and, last, one named "../escaped.json"
        symbolicLinkArchive,   // archive: the files and, last, a link to /etc/passwd
        oversizedArchive,      // archive: entries that declare 2 GiB each
        noLastModified,        // archive: no "Last-Modified" header
        endlessArchive,        // archive: a body without length that never ends, as fast as it goes
        trickleArchive,        // archive: a body without length that never ends, 16 bytes every 100 ms
        zipBombArchive,        // archive: the files, with a "block-ads.json" that unpacks to 64 MiB and more
    };

    struct Options {
        std::filesystem::path root;
        // 0 picks a free port.
        std::uint16_t port = 0;
        std::string password = "ZPArchiveOpenerMarker";
        ArchiveEncryption encryption = ArchiveEncryption::traditionalPKWARE;
    };

    // What the server publishes for the folder as it is now.
    struct Publication {
        MetadataManifest manifest;
        std::shared_ptr<const std::string> archive;
    };

    explicit FilterServer(Options options);
    // Stops the server.
    ~FilterServer();
    FilterServer(const FilterServer&) = delete;
    FilterServer& operator=(const FilterServer&) = delete;

    // Binds 127.0.0.1 and serves on a thread of its own.
    std::expected<void, std::string> start();
    // Releases requests held by noAnswer and waits for the server to end.
    void stop();

    std::uint16_t port() const;
    // "http://127.0.0.1:<port>"
    std::string baseURL() const;

    void setFault(Endpoint endpoint, Fault fault);
    // A fixed publication date instead of the files' newest one; none goes back.
    void setPublicationDate(std::optional<platform::Date> date);
    // Answers the requests that noAnswer holds, with 503.
    void releaseHangingRequests();
    // Requests that noAnswer holds right now.
    std::size_t heldRequestCount() const;
    // Requests received so far (HEAD included), per endpoint.
    std::size_t requestCount(Endpoint endpoint) const;

    // Packs the folder if it changed since the last time.
    std::expected<Publication, std::string> publication();

    struct State;

private:
    std::shared_ptr<State> state_;
};

}  // namespace tamsel::updates

namespace tamsel::model {
template <>
struct RawValueTable<updates::FilterServer::Fault> {
    static constexpr std::array<std::string_view, 15> rawValues{
        "none",      "not-found",      "server-error", "reset",   "no-answer", "not-plist",
        "truncated", "wrong-password", "zip-slip",     "symlink", "oversized", "no-last-modified",
        "endless",   "trickle",        "zip-bomb"};
};
template <>
struct RawValueTable<updates::FilterServer::Endpoint> {
    static constexpr std::array<std::string_view, 2> rawValues{"metadata", "archive"};
};
}  // namespace tamsel::model
