#include "updates/ArchivePacker.h"

#include <sys/stat.h>
#include <zip.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tamsel::updates {
namespace {

std::uint16_t encryptionMethod(ArchiveEncryption encryption) {
    switch (encryption) {
        case ArchiveEncryption::none: return ZIP_EM_NONE;
        case ArchiveEncryption::traditionalPKWARE: return ZIP_EM_TRAD_PKWARE;
        case ArchiveEncryption::aes256: return ZIP_EM_AES_256;
    }
    return ZIP_EM_NONE;
}

std::string sourceErrorText(zip_source_t* source) { return zip_error_strerror(zip_source_error(source)); }

std::expected<std::string, std::string> readWholeSource(zip_source_t* source) {
    if (zip_source_open(source) != 0) return std::unexpected(sourceErrorText(source));
    std::string bytes;
    char buffer[64 * 1024];
    for (;;) {
        const zip_int64_t read = zip_source_read(source, buffer, sizeof buffer);
        if (read < 0) {
            zip_source_close(source);
            return std::unexpected(sourceErrorText(source));
        }
        if (read == 0) break;
        bytes.append(buffer, static_cast<size_t>(read));
    }
    zip_source_close(source);
    return bytes;
}

// An entry's bytes followed by `padding` spaces, produced as libzip reads.
struct PaddedSource {
    std::string_view bytes;
    std::uint64_t padding = 0;
    std::uint64_t offset = 0;
    zip_error_t error;
};

zip_int64_t readPadded(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    auto* source = static_cast<PaddedSource*>(state);
    const std::uint64_t total = source->bytes.size() + source->padding;
    switch (command) {
        case ZIP_SOURCE_OPEN: source->offset = 0; return 0;
        case ZIP_SOURCE_READ: {
            auto* out = static_cast<char*>(data);
            const std::uint64_t count = std::min<std::uint64_t>(length, total - source->offset);
            for (std::uint64_t i = 0; i < count; ++i) {
                const std::uint64_t at = source->offset + i;
                out[i] = at < source->bytes.size() ? source->bytes[at] : ' ';
            }
            source->offset += count;
            return static_cast<zip_int64_t>(count);
        }
        case ZIP_SOURCE_CLOSE: return 0;
        case ZIP_SOURCE_STAT: {
            auto* stat = static_cast<zip_stat_t*>(data);
            zip_stat_init(stat);
            stat->size = total;
            // Traditional encryption checks the password against the time
            // when, as here, the checksum is not known before the data.
            stat->mtime = 0;
            stat->valid |= ZIP_STAT_SIZE | ZIP_STAT_MTIME;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_ERROR: return zip_error_to_data(&source->error, data, length);
        case ZIP_SOURCE_FREE:
            zip_error_fini(&source->error);
            delete source;
            return 0;
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
        default: zip_error_set(&source->error, ZIP_ER_OPNOTSUPP, 0); return -1;
    }
}

zip_source_t* entrySource(zip_t* archive, const ArchiveEntry& entry) {
    if (entry.padding == 0) return zip_source_buffer(archive, entry.bytes.data(), entry.bytes.size(), 0);
    auto* state = new PaddedSource{entry.bytes, entry.padding, 0, {}};
    zip_error_init(&state->error);
    zip_source_t* source = zip_source_function(archive, readPadded, state);
    if (!source) {
        zip_error_fini(&state->error);
        delete state;
    }
    return source;
}

std::uint32_t readLE32(const std::string& bytes, size_t offset) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

std::uint16_t readLE16(const std::string& bytes, size_t offset) {
    return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[offset]) |
                                      (static_cast<unsigned char>(bytes[offset + 1]) << 8));
}

void writeLE32(std::string& bytes, size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[offset + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

}  // namespace

std::expected<std::string, std::string> packArchive(const std::vector<ArchiveEntry>& entries,
                                                    const PackOptions& options) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* buffer = zip_source_buffer_create(nullptr, 0, 0, &error);
    if (!buffer) {
        std::string text = zip_error_strerror(&error);
        zip_error_fini(&error);
        return std::unexpected(text);
    }
    zip_t* archive = zip_open_from_source(buffer, ZIP_TRUNCATE, &error);
    if (!archive) {
        std::string text = zip_error_strerror(&error);
        zip_error_fini(&error);
        zip_source_free(buffer);
        return std::unexpected(text);
    }
    zip_error_fini(&error);
    // The buffer must outlive zip_close, which writes the archive into it.
    zip_source_keep(buffer);

    auto fail = [&](std::string text) -> std::unexpected<std::string> {
        zip_discard(archive);
        zip_source_free(buffer);
        return std::unexpected(std::move(text));
    };

    for (size_t i = 0; i < entries.size(); ++i) {
        const ArchiveEntry& entry = entries[i];
        // A later entry of the same name wins. It is left out here rather than
        // overwritten in libzip, which would leak the replaced entry's password.
        const bool replacedLater = std::any_of(entries.begin() + static_cast<std::ptrdiff_t>(i) + 1, entries.end(),
                                               [&](const ArchiveEntry& later) { return later.name == entry.name; });
        if (replacedLater) continue;
        zip_source_t* data = entrySource(archive, entry);
        if (!data) return fail(zip_strerror(archive));
        const zip_int64_t index = zip_file_add(archive, entry.name.c_str(), data, ZIP_FL_OVERWRITE | ZIP_FL_ENC_UTF_8);
        if (index < 0) {
            zip_source_free(data);
            return fail(zip_strerror(archive));
        }
        const auto at = static_cast<zip_uint64_t>(index);
        // Always deflate, so that every entry's declared size is independent
        // of its stored size (which hostile test archives rely on).
        if (zip_set_file_compression(archive, at, ZIP_CM_DEFLATE, 0) != 0) return fail(zip_strerror(archive));
        const mode_t mode = entry.isSymbolicLink ? (S_IFLNK | 0777) : (S_IFREG | 0644);
        if (zip_file_set_external_attributes(archive, at, 0, ZIP_OPSYS_UNIX, static_cast<zip_uint32_t>(mode) << 16) != 0) {
            return fail(zip_strerror(archive));
        }
        if (options.encryption != ArchiveEncryption::none &&
            zip_file_set_encryption(archive, at, encryptionMethod(options.encryption), options.password.c_str()) != 0) {
            return fail(zip_strerror(archive));
        }
    }
    if (zip_close(archive) != 0) return fail(zip_strerror(archive));

    auto bytes = readWholeSource(buffer);
    zip_source_free(buffer);
    return bytes;
}

std::expected<void, std::string> overrideDeclaredSizes(std::string& archive, std::uint32_t declaredSize) {
    constexpr std::uint32_t endSignature = 0x06054b50, centralSignature = 0x02014b50, localSignature = 0x04034b50;
    constexpr size_t endRecordSize = 22;
    if (archive.size() < endRecordSize) return std::unexpected("too short for a ZIP archive");
    size_t end = archive.size() - endRecordSize;
    while (readLE32(archive, end) != endSignature) {
        if (end == 0) return std::unexpected("no end of central directory");
        --end;
    }
    const std::uint16_t count = readLE16(archive, end + 10);
    size_t central = readLE32(archive, end + 16);
    for (std::uint16_t i = 0; i < count; ++i) {
        if (central + 46 > archive.size() || readLE32(archive, central) != centralSignature) {
            return std::unexpected("malformed central directory");
        }
        const size_t local = readLE32(archive, central + 42);
        if (local + 30 > archive.size() || readLE32(archive, local) != localSignature) {
            return std::unexpected("malformed local header");
        }
        writeLE32(archive, central + 24, declaredSize);
        writeLE32(archive, local + 22, declaredSize);
        central += 46 + readLE16(archive, central + 28) + readLE16(archive, central + 30) + readLE16(archive, central + 32);
    }
    return {};
}

}  // namespace tamsel::updates
