#pragma once

#include <expected>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/CKRecordValue.h"

// The cloud client's records, zones, change tokens and subscriptions, after
// CloudKit's. A record knows its system fields (name, zone, type, change
// tag, dates, users), which archive and restore on their own, so that a
// record rebuilt from them carries the change tag of the version it was
// based on.
namespace tamsel::platform {

class CKRecord {
public:
    CKRecord(std::string recordType, CKRecordID recordID);

    const CKRecordID& recordID() const { return recordID_; }
    const std::string& recordType() const { return recordType_; }

    // The value of a key, or none.
    const CKRecordValue* object(const std::string& key) const;
    // Sets (or, with none, removes) a key's value; the key counts as changed.
    void set(const std::string& key, std::optional<CKRecordValue> value);
    const CKRecordFields& fields() const { return fields_; }
    std::vector<std::string> allKeys() const;
    // Keys set since the record came from the server (or was made).
    const std::set<std::string>& changedKeys() const { return changedKeys_; }

    // System fields. None until the server saved the record.
    const std::optional<std::string>& recordChangeTag() const { return recordChangeTag_; }
    std::optional<CKTimestamp> creationDate() const { return creationDate_; }
    std::optional<CKTimestamp> modificationDate() const { return modificationDate_; }
    const std::string& creatorUserRecordName() const { return creatorUserRecordName_; }
    const std::string& lastModifiedUserRecordName() const { return lastModifiedUserRecordName_; }

    // The system fields as bytes, without any key's value.
    std::string encodeSystemFields() const;
    // A record with the archived system fields and no keys.
    static std::expected<CKRecord, std::string> decodeSystemFields(std::string_view bytes);

    // The fields as the server last had them, when this record came from the
    // server; what a conflict hands over as the ancestor.
    const std::optional<CKRecordFields>& serverFields() const { return serverFields_; }

    // "<CKRecord recordType=rule recordID=NAME:(ZONE:OWNER) recordChangeTag=TAG fields={…}>".
    std::string description() const;

    // The server's answer for this record: system fields and keys as stored
    // there, nothing changed. Used by the client's operations.
    void applyServerState(const CKRecord& server);
    void setSystemFields(std::optional<std::string> changeTag, std::optional<CKTimestamp> created,
                         std::optional<CKTimestamp> modified, std::string creator, std::string modifier);
    void markSynchronised();

    friend bool operator==(const CKRecord&, const CKRecord&) = default;

private:
    CKRecordID recordID_;
    std::string recordType_;
    CKRecordFields fields_;
    std::set<std::string> changedKeys_;
    std::optional<std::string> recordChangeTag_;
    std::optional<CKTimestamp> creationDate_;
    std::optional<CKTimestamp> modificationDate_;
    std::string creatorUserRecordName_;
    std::string lastModifiedUserRecordName_;
    std::optional<CKRecordFields> serverFields_;
};

std::string describe(const CKRecordValue& value);

struct CKRecordZone {
    CKRecordZoneID zoneID;
    explicit CKRecordZone(std::string zoneName) : zoneID{std::move(zoneName), CKRecordZoneID::defaultOwnerName} {}
    explicit CKRecordZone(CKRecordZoneID id) : zoneID(std::move(id)) {}
    static CKRecordZone defaultZone() { return CKRecordZone(CKRecordZoneID{}); }
    friend bool operator==(const CKRecordZone&, const CKRecordZone&) = default;
};

// Where a zone's changes were read up to. Opaque; archives to bytes so that
// it can be kept in the defaults.
class CKServerChangeToken {
public:
    explicit CKServerChangeToken(std::string opaque) : opaque_(std::move(opaque)) {}
    const std::string& opaque() const { return opaque_; }
    std::string archive() const;
    static std::expected<CKServerChangeToken, std::string> unarchive(std::string_view bytes);
    friend bool operator==(const CKServerChangeToken&, const CKServerChangeToken&) = default;

private:
    std::string opaque_;
};

struct CKNotificationInfo {
    bool shouldSendContentAvailable = false;
    friend bool operator==(const CKNotificationInfo&, const CKNotificationInfo&) = default;
};

// A subscription to every change of one zone.
struct CKRecordZoneSubscription {
    CKRecordZoneID zoneID;
    std::string subscriptionID;
    CKNotificationInfo notificationInfo;
    friend bool operator==(const CKRecordZoneSubscription&, const CKRecordZoneSubscription&) = default;
};

enum class CKAccountStatus : int {
    couldNotDetermine = 0,
    available = 1,
    restricted = 2,
    noAccount = 3,
    temporarilyUnavailable = 4,
};
// "could not determine", "available", "restricted", "no account", "temporarily unavailable".
std::string_view rawValue(CKAccountStatus status);

}  // namespace tamsel::platform
