#include "updates/FilterServer.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fmt/format.h>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/Files.h"
#include "updates/UpdateSettings.h"
#include "updates/VersionDateFormatter.h"

namespace tamsel::updates {
namespace {

struct FileStamp {
    std::string name;
    std::uintmax_t size = 0;
    std::filesystem::file_time_type modified;
    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

std::expected<std::vector<FileStamp>, std::string> stampFiles(const std::filesystem::path& root) {
    std::vector<FileStamp> stamps;
    std::error_code failure;
    for (std::filesystem::directory_iterator it(root, failure), end; !failure && it != end; it.increment(failure)) {
        const std::string name = it->path().filename().string();
        if (name.starts_with('.') || !it->is_regular_file(failure)) continue;
        stamps.push_back({name, it->file_size(failure), it->last_write_time(failure)});
        if (failure) break;
    }
    if (failure) return std::unexpected(root.string() + ": " + failure.message());
    if (stamps.empty()) return std::unexpected(root.string() + ": no files to publish");
    std::sort(stamps.begin(), stamps.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return stamps;
}

platform::Date newestModification(const std::vector<FileStamp>& stamps) {
    auto newest = std::max_element(stamps.begin(), stamps.end(),
                                   [](const auto& a, const auto& b) { return a.modified < b.modified; })
                      ->modified;
    const auto system = std::chrono::file_clock::to_sys(newest);
    return platform::Date(std::chrono::floor<std::chrono::seconds>(system));
}

std::string fingerprint(std::string_view bytes) {
    std::uint64_t hash = 0xcbf29ce484222325ULL;  // FNV-1a
    for (unsigned char byte : bytes) {
        hash ^= byte;
        hash *= 0x100000001b3ULL;
    }
    return fmt::format("{:016x}", hash);
}

// The bytes that actually go out for a given archive fault.
std::expected<std::string, std::string> archiveBytes(FilterServer::Fault fault, const std::vector<ArchiveEntry>& files,
                                                     const std::string& published, const FilterServer::Options& options) {
    using Fault = FilterServer::Fault;
    PackOptions pack{options.password, options.encryption};
    auto withExtra = [&](ArchiveEntry extra) {
        auto entries = files;
        entries.push_back(std::move(extra));
        return packArchive(entries, pack);
    };
    switch (fault) {
        case Fault::truncatedArchive: return published.substr(0, published.size() / 2);
        case Fault::wrongPasswordArchive:
            pack.password = "NotTheArchivePassword";
            return packArchive(files, pack);
        case Fault::zipSlipArchive: return withExtra({"../escaped.json", "[]", false});
        case Fault::symbolicLinkArchive: return withExtra({"linked.json", "/etc/passwd", true});
        case Fault::zipBombArchive: {
            // Valid JSON all the way (trailing spaces are), so that only the
            // size can be what refuses it.
            auto entries = files;
            for (auto& entry : entries) {
                if (entry.name != "block-ads.json") continue;
                entry.bytes = R"({"id":"block-ads","name":"Ads","rules":[]})";
                entry.padding = std::uint64_t{64} << 20;
            }
            return packArchive(entries, pack);
        }
        case Fault::oversizedArchive: {
            auto bytes = withExtra({"padding.bin", std::string(1 << 20, '\0'), false});
            if (!bytes) return bytes;
            if (auto patched = overrideDeclaredSizes(*bytes, 0x80000000u); !patched) {
                return std::unexpected(patched.error());
            }
            return bytes;
        }
        default: return published;
    }
}

}  // namespace

struct FilterServer::State {
    explicit State(Options options) : options(std::move(options)) {}

    Options options;
    httplib::Server server;
    std::thread thread;
    std::atomic<std::uint16_t> port{0};

    mutable std::mutex mutex;
    std::condition_variable released;
    bool stopping = false;
    std::uint64_t releaseGeneration = 0;
    std::size_t held = 0;
    std::array<Fault, 2> faults{Fault::none, Fault::none};
    std::optional<platform::Date> dateOverride;
    std::array<std::size_t, 2> counts{0, 0};

    // Packing may take seconds for a full rule set; one request packs while
    // the others wait for its result.
    std::mutex packMutex;
    std::vector<FileStamp> packedStamps;
    std::vector<ArchiveEntry> packedFiles;
    std::shared_ptr<const std::string> packedArchive;

    Fault beginRequest(Endpoint endpoint) {
        std::lock_guard lock(mutex);
        ++counts[static_cast<size_t>(endpoint)];
        return faults[static_cast<size_t>(endpoint)];
    }

    // Handles the faults that both endpoints share; true when it answered.
    bool answerCommonFault(Fault fault, httplib::Response& response) {
        switch (fault) {
            case Fault::notFound: response.status = 404; response.set_content("Not Found", "text/plain"); return true;
            case Fault::serverError:
                response.status = 500;
                response.set_content("Internal Server Error", "text/plain");
                return true;
            case Fault::noAnswer: {
                std::unique_lock lock(mutex);
                const auto generation = releaseGeneration;
                ++held;
                released.wait(lock, [&] { return stopping || releaseGeneration != generation; });
                --held;
                response.status = 503;
                return true;
            }
            default: return false;
        }
    }

    void serveBody(std::shared_ptr<const std::string> body, const std::string& contentType, bool resetHalfway,
                   httplib::Response& response) {
        const size_t cut = resetHalfway ? body->size() / 2 : body->size();
        response.set_content_provider(
            body->size(), contentType, [body, cut](size_t offset, size_t length, httplib::DataSink& sink) {
                if (offset >= cut) return false;  // drops the connection
                const size_t count = std::min(length, cut - offset);
                return sink.write(body->data() + offset, count);
            });
    }

    bool isStopping() const {
        std::lock_guard lock(mutex);
        return stopping;
    }

    // A body with no announced length that goes on until the client hangs up
    // or the server stops.
    void serveEndlessBody(bool trickle, httplib::Response& response) {
        response.set_chunked_content_provider("application/zip", [this, trickle](size_t, httplib::DataSink& sink) {
            if (isStopping()) return false;
            if (trickle) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                return sink.write("0123456789abcdef", 16);
            }
            static const std::string block(64 * 1024, '\0');
            return sink.write(block.data(), block.size());
        });
    }

    std::expected<Publication, std::string> publish() {
        auto stamps = stampFiles(options.root);
        if (!stamps) return std::unexpected(stamps.error());
        std::lock_guard lock(packMutex);
        if (!packedArchive || *stamps != packedStamps) {
            std::vector<ArchiveEntry> files;
            for (const auto& stamp : *stamps) {
                auto bytes = platform::readFile(options.root / stamp.name);
                if (!bytes) return std::unexpected(stamp.name + ": " + bytes.error().message());
                files.push_back({stamp.name, std::move(*bytes), false});
            }
            auto archive = packArchive(files, {options.password, options.encryption});
            if (!archive) return std::unexpected(archive.error());
            packedArchive = std::make_shared<const std::string>(std::move(*archive));
            packedFiles = std::move(files);
            packedStamps = *stamps;
        }
        std::optional<platform::Date> date;
        {
            std::lock_guard stateLock(mutex);
            date = dateOverride;
        }
        MetadataManifest manifest{fingerprint(*packedArchive), date.value_or(newestModification(packedStamps)),
                                  static_cast<std::int64_t>(packedArchive->size())};
        return Publication{std::move(manifest), packedArchive};
    }

    void serveMetadata(httplib::Response& response) {
        const Fault fault = beginRequest(Endpoint::metadata);
        if (answerCommonFault(fault, response)) return;
        auto current = publish();
        if (!current) {
            response.status = 500;
            response.set_content(current.error(), "text/plain");
            return;
        }
        auto body = std::make_shared<const std::string>(
            fault == Fault::notAPropertyList ? std::string("{\"id\": \"not a property list\"}")
                                             : current->manifest.encodeXML());
        serveBody(body, "application/xml", fault == Fault::resetMidTransfer, response);
    }

    void serveArchive(httplib::Response& response) {
        const Fault fault = beginRequest(Endpoint::archive);
        if (answerCommonFault(fault, response)) return;
        auto current = publish();
        if (current && (fault == Fault::endlessArchive || fault == Fault::trickleArchive)) {
            response.set_header("Last-Modified", VersionDateFormatter().string(current->manifest.date));
            serveEndlessBody(fault == Fault::trickleArchive, response);
            return;
        }
        std::expected<std::string, std::string> bytes = std::unexpected(std::string());
        if (current) {
            std::lock_guard lock(packMutex);
            bytes = archiveBytes(fault, packedFiles, *current->archive, options);
        } else {
            bytes = std::unexpected(current.error());
        }
        if (!bytes) {
            response.status = 500;
            response.set_content(bytes.error(), "text/plain");
            return;
        }
        if (fault != Fault::noLastModified) {
            response.set_header("Last-Modified", VersionDateFormatter().string(current->manifest.date));
        }
        serveBody(std::make_shared<const std::string>(std::move(*bytes)), "application/zip",
                  fault == Fault::resetMidTransfer, response);
    }
};

FilterServer::FilterServer(Options options) : state_(std::make_shared<State>(std::move(options))) {}

FilterServer::~FilterServer() { stop(); }

std::expected<void, std::string> FilterServer::start() {
    State* state = state_.get();
    if (state->thread.joinable()) return std::unexpected("the server is already running");
    // Each request stands alone, so that stopping never waits on an idle
    // kept-alive connection.
    state->server.set_keep_alive_max_count(1);
    state->server.Get(UpdateSettings::metadataPath,
                      [state](const httplib::Request&, httplib::Response& response) { state->serveMetadata(response); });
    state->server.Get(UpdateSettings::archivePath,
                      [state](const httplib::Request&, httplib::Response& response) { state->serveArchive(response); });

    int port = state->options.port;
    if (port == 0) {
        port = state->server.bind_to_any_port("127.0.0.1");
        if (port <= 0) return std::unexpected("could not bind 127.0.0.1 to a free port");
    } else if (!state->server.bind_to_port("127.0.0.1", port)) {
        return std::unexpected(fmt::format("could not bind 127.0.0.1:{}", port));
    }
    state->port = static_cast<std::uint16_t>(port);
    auto listenEnded = std::make_shared<std::atomic<bool>>(false);
    state->thread = std::thread([state, listenEnded] {
        state->server.listen_after_bind();
        listenEnded->store(true);
    });
    // httplib's stop() does nothing until the listening loop has begun, so a
    // stop() that came before it would leave the loop accepting for ever.
    // Return only once the loop runs (or ended at once).
    while (!state->server.is_running() && !listenEnded->load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!state->server.is_running()) {
        state->thread.join();
        return std::unexpected(fmt::format("could not listen on 127.0.0.1:{}", port));
    }
    return {};
}

void FilterServer::stop() {
    State* state = state_.get();
    {
        std::lock_guard lock(state->mutex);
        state->stopping = true;
    }
    state->released.notify_all();
    if (state->thread.joinable()) {
        state->server.stop();
        state->thread.join();
    }
}

std::uint16_t FilterServer::port() const { return state_->port; }

std::string FilterServer::baseURL() const { return fmt::format("http://127.0.0.1:{}", port()); }

void FilterServer::setFault(Endpoint endpoint, Fault fault) {
    std::lock_guard lock(state_->mutex);
    state_->faults[static_cast<size_t>(endpoint)] = fault;
}

void FilterServer::setPublicationDate(std::optional<platform::Date> date) {
    std::lock_guard lock(state_->mutex);
    state_->dateOverride = date;
}

void FilterServer::releaseHangingRequests() {
    {
        std::lock_guard lock(state_->mutex);
        ++state_->releaseGeneration;
    }
    state_->released.notify_all();
}

std::size_t FilterServer::heldRequestCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->held;
}

std::size_t FilterServer::requestCount(Endpoint endpoint) const {
    std::lock_guard lock(state_->mutex);
    return state_->counts[static_cast<size_t>(endpoint)];
}

std::expected<FilterServer::Publication, std::string> FilterServer::publication() { return state_->publish(); }

}  // namespace tamsel::updates
