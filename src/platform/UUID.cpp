#include "platform/UUID.h"

#include <uuid/uuid.h>

namespace tamsel::platform {

std::string newUUIDString() {
    uuid_t bytes;
    uuid_generate_random(bytes);
    char text[37];
    uuid_unparse_upper(bytes, text);
    return text;
}

std::optional<UUIDBytes> parseUUID(std::string_view text) {
    // uuid_parse reads exactly 36 characters from a terminated string.
    if (text.size() != 36) return std::nullopt;
    const std::string terminated(text);
    uuid_t bytes;
    if (uuid_parse(terminated.c_str(), bytes) != 0) return std::nullopt;
    UUIDBytes result;
    std::copy(std::begin(bytes), std::end(bytes), result.begin());
    return result;
}

std::string uuidString(const UUIDBytes& bytes) {
    uuid_t raw;
    std::copy(bytes.begin(), bytes.end(), std::begin(raw));
    char text[37];
    uuid_unparse_upper(raw, text);
    return text;
}

}  // namespace tamsel::platform
