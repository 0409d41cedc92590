#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <vector>

// Builds rule archives the way the filter server publishes them: a ZIP of
// the package files at its top level, encrypted with the archive password.
// Used by the development filter server and by tests, which also build
// hostile archives with it (link entries, names outside the folder, sizes
// that lie).
namespace tamsel::updates {

enum class ArchiveEncryption { none, traditionalPKWARE, aes256 };

struct ArchiveEntry {
    std::string name;
    std::string bytes;
    // Recorded as a Unix symbolic link whose target is `bytes`.
    bool isSymbolicLink = false;
    // That many spaces after `bytes`, made while packing: an entry of any
    // size for a few kilobytes of archive and no memory (a zip bomb).
    std::uint64_t padding = 0;
};

struct PackOptions {
    std::string password;
    ArchiveEncryption encryption = ArchiveEncryption::traditionalPKWARE;
};

// The archive's bytes, or libzip's reason for failing. Of entries that share a
// name, the last one is packed.
std::expected<std::string, std::string> packArchive(const std::vector<ArchiveEntry>& entries,
                                                    const PackOptions& options);

// Rewrites the uncompressed size that every entry declares (in its local
// header and in the central directory) to `declaredSize`, leaving the data
// as it is. Fails when the bytes are not a ZIP archive this code wrote.
std::expected<void, std::string> overrideDeclaredSizes(std::string& archive, std::uint32_t declaredSize);

}  // namespace tamsel::updates
