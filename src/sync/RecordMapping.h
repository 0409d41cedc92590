#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "model/Package.h"
#include "model/Rule.h"
#include "platform/CKRecord.h"
#include "platform/Value.h"

// How the user's packages and rules travel as cloud records, and back.
//
// The record name is the model object's identifier. A "package" record holds
// the package's name; a "rule" record holds the rule's name, a reference to
// its package's record and the parts of its content-blocker entry, each
// under a field of its own so that two devices that change different parts
// of one rule can be merged field by field.
//
// Between a local change and its push a record lives as a field dictionary
// (property-list values), so that it can wait in the defaults: there the
// "package" field is the package's record name and "caseSensitive" is a
// Boolean; both become their record types only when the record is built.
namespace tamsel::sync {

// The zone in the private database that holds every record.
inline constexpr char zoneName[] = "BlockerRulesZone";
platform::CKRecordZoneID rulesZoneID();

struct RecordType {
    static constexpr std::string_view package = "package";
    static constexpr std::string_view rule = "rule";
};

struct RecordField {
    static constexpr std::string_view name = "name";
    static constexpr std::string_view package = "package";
    static constexpr std::string_view urlFilter = "urlFilter";
    static constexpr std::string_view caseSensitive = "caseSensitive";
    static constexpr std::string_view resourceTypes = "resourceTypes";
    static constexpr std::string_view loadType = "loadType";
    static constexpr std::string_view domainFilterType = "domainFilterType";
    static constexpr std::string_view domainFilterValues = "domainFilterValues";
    static constexpr std::string_view actionType = "actionType";
    static constexpr std::string_view selector = "selector";
};

// A record lacks a field the model needs, or holds a value that is not one
// of the raw texts.
enum class RecordMappingError { invalidData };

// The field dictionaries of a local change.
platform::Dictionary fieldsOf(const model::Package& package);
platform::Dictionary fieldsOf(const model::Rule& rule, const std::string& packageRecordName);

// A field dictionary as record values, and back.
std::optional<platform::CKRecordValue> recordValue(const std::string& field, const platform::Value& value);
std::optional<platform::Value> dictionaryValue(const std::string& field, const platform::CKRecordValue& value);
platform::CKRecordFields recordFields(const platform::Dictionary& fields);
platform::Dictionary dictionaryFields(const platform::CKRecordFields& fields);

// The model objects of a record. A package record without a creation date
// gets the current date.
std::expected<model::Package, RecordMappingError> packageFromRecord(const platform::CKRecord& record);
std::expected<model::Rule, RecordMappingError> ruleFromRecord(const platform::CKRecord& record);
// The record name of the package a rule record points at; none without a
// "package" reference.
std::optional<std::string> packageRecordName(const platform::CKRecord& record);

}  // namespace tamsel::sync
