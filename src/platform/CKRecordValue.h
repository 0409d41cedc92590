#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

// The values a cloud record holds, as the CloudKit protocol types them:
// STRING, INT64, DOUBLE, TIMESTAMP, REFERENCE, STRING_LIST and BYTES. There is
// no Boolean: a flag travels as an INT64 of 0 or 1.
namespace tamsel::platform {

// Where a zone lives: its name and its owner ("__defaultOwner__" is the
// signed-in user, as the framework writes it).
struct CKRecordZoneID {
    static inline const std::string defaultZoneName = "_defaultZone";
    static inline const std::string defaultOwnerName = "__defaultOwner__";

    std::string zoneName = defaultZoneName;
    std::string ownerName = defaultOwnerName;

    friend bool operator==(const CKRecordZoneID&, const CKRecordZoneID&) = default;
};

struct CKRecordID {
    std::string recordName;
    CKRecordZoneID zoneID;

    friend bool operator==(const CKRecordID&, const CKRecordID&) = default;
};

struct CKReference {
    enum class Action { none, deleteSelf };
    CKRecordID recordID;
    Action action = Action::none;

    friend bool operator==(const CKReference&, const CKReference&) = default;
};

// Milliseconds since 1970-01-01T00:00:00Z, the protocol's TIMESTAMP.
struct CKTimestamp {
    std::int64_t milliseconds = 0;
    friend bool operator==(const CKTimestamp&, const CKTimestamp&) = default;
};

// Bytes of a BYTES field (base64 on the wire).
struct CKBytes {
    std::string bytes;
    friend bool operator==(const CKBytes&, const CKBytes&) = default;
};

using CKRecordValue =
    std::variant<std::string, std::int64_t, double, CKTimestamp, CKReference, std::vector<std::string>, CKBytes>;

// Field name → value, in name order.
using CKRecordFields = std::map<std::string, CKRecordValue>;

}  // namespace tamsel::platform

template <>
struct std::hash<tamsel::platform::CKRecordZoneID> {
    std::size_t operator()(const tamsel::platform::CKRecordZoneID& id) const noexcept {
        return std::hash<std::string>{}(id.zoneName) * 31 + std::hash<std::string>{}(id.ownerName);
    }
};

template <>
struct std::hash<tamsel::platform::CKRecordID> {
    std::size_t operator()(const tamsel::platform::CKRecordID& id) const noexcept {
        return std::hash<std::string>{}(id.recordName) * 31 + std::hash<tamsel::platform::CKRecordZoneID>{}(id.zoneID);
    }
};
