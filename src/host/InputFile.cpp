#include "host/InputFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tamsel::host {

namespace {

std::expected<simdjson::padded_string, std::string> loadStandardInput(std::uintmax_t maximumSize) {
    std::string bytes;
    char chunk[65536];
    std::size_t read;
    while ((read = std::fread(chunk, 1, sizeof chunk, stdin)) > 0) {
        bytes.append(chunk, read);
        if (bytes.size() > maximumSize) {
            return std::unexpected("is more than the limit of " + std::to_string(maximumSize) + " bytes");
        }
    }
    if (std::ferror(stdin)) return std::unexpected(std::strerror(errno));
    if (bytes.empty()) return std::unexpected("is empty");
    return simdjson::padded_string(bytes);
}

}  // namespace

std::expected<simdjson::padded_string, std::string> loadInputFile(const std::filesystem::path& path,
                                                                  std::uintmax_t maximumSize) {
    if (path == "-") return loadStandardInput(maximumSize);
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error || !std::filesystem::exists(status)) {
        if (!error || error == std::errc::no_such_file_or_directory) return std::unexpected("no such file");
        return std::unexpected(error.message());
    }
    if (std::filesystem::is_directory(status)) return std::unexpected("is a directory");
    if (!std::filesystem::is_regular_file(status)) return std::unexpected("is not a regular file");
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) return std::unexpected(error.message());
    if (size == 0) return std::unexpected("is empty");
    if (size > maximumSize) {
        return std::unexpected("is " + std::to_string(size) + " bytes, more than the limit of " +
                               std::to_string(maximumSize));
    }

    // Read with stdio rather than padded_string::load, whose single I/O error
    // code would hide why (permissions, a file that shrank meanwhile).
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) return std::unexpected(std::strerror(errno));
    simdjson::padded_string bytes(static_cast<std::size_t>(size));
    const std::size_t read = std::fread(bytes.data(), 1, bytes.size(), file.get());
    if (read != bytes.size()) {
        if (std::ferror(file.get())) return std::unexpected(std::strerror(errno));
        return std::unexpected("changed while it was read");
    }
    return bytes;
}

}  // namespace tamsel::host
