// Decodes arbitrary bytes as the fields of a cloud record, as the server does
// with every records/modify it is sent and the client with every answer.
// Whatever decodes must survive a write and a second read unchanged; anything
// else is a bug, and the target aborts. The same bytes are also tried as
// archived system fields and as an archived change token.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <simdjson.h>

#include "platform/CKRecord.h"
#include "platform/CKWire.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tamsel::platform;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    simdjson::dom::parser parser;
    simdjson::dom::element element;
    if (parser.parse(bytes.data(), bytes.size()).get(element) == simdjson::SUCCESS) {
        if (auto fields = ckwire::readFields(element)) {
            const std::string written = ckwire::fieldsJSON(*fields);
            simdjson::dom::parser again;
            simdjson::dom::element reread;
            if (again.parse(written).get(reread) != simdjson::SUCCESS) std::abort();
            auto second = ckwire::readFields(reread);
            if (!second || *second != *fields) std::abort();
        }
    }
    if (auto record = CKRecord::decodeSystemFields(bytes)) {
        auto again = CKRecord::decodeSystemFields(record->encodeSystemFields());
        if (!again || again->recordChangeTag() != record->recordChangeTag()) std::abort();
    }
    (void)CKServerChangeToken::unarchive(bytes);
    return 0;
}
