#include "sync/RecordMapping.h"

#include <chrono>
#include <cstdint>
#include <vector>

#include "model/ActionType.h"
#include "model/DomainFilterType.h"
#include "model/LoadType.h"
#include "model/RawRepresentable.h"
#include "model/ResourceType.h"

namespace tamsel::sync {
namespace {

using platform::CKRecordValue;
using platform::Dictionary;
using platform::Value;

const std::string nameKey{RecordField::name};
const std::string packageKey{RecordField::package};
const std::string urlFilterKey{RecordField::urlFilter};
const std::string caseSensitiveKey{RecordField::caseSensitive};
const std::string resourceTypesKey{RecordField::resourceTypes};
const std::string loadTypeKey{RecordField::loadType};
const std::string domainFilterTypeKey{RecordField::domainFilterType};
const std::string domainFilterValuesKey{RecordField::domainFilterValues};
const std::string actionTypeKey{RecordField::actionType};
const std::string selectorKey{RecordField::selector};

template <class E>
Value rawTexts(const std::vector<E>& cases) {
    platform::Array texts;
    texts.reserve(cases.size());
    for (E value : cases) texts.emplace_back(model::rawValue(value));
    return Value(std::move(texts));
}

Value texts(const std::vector<std::string>& values) {
    platform::Array array(values.begin(), values.end());
    return Value(std::move(array));
}

const std::string* text(const platform::CKRecord& record, const std::string& key) {
    const CKRecordValue* value = record.object(key);
    return value ? std::get_if<std::string>(value) : nullptr;
}

const std::vector<std::string>* textList(const platform::CKRecord& record, const std::string& key) {
    const CKRecordValue* value = record.object(key);
    return value ? std::get_if<std::vector<std::string>>(value) : nullptr;
}

template <class E>
std::expected<std::vector<E>, RecordMappingError> casesOf(const std::vector<std::string>& raw) {
    std::vector<E> cases;
    cases.reserve(raw.size());
    for (const auto& text : raw) {
        const auto value = model::fromRawValue<E>(text);
        if (!value) return std::unexpected(RecordMappingError::invalidData);
        cases.push_back(*value);
    }
    return cases;
}

}  // namespace

platform::CKRecordZoneID rulesZoneID() {
    return platform::CKRecordZoneID{zoneName, platform::CKRecordZoneID::defaultOwnerName};
}

Dictionary fieldsOf(const model::Package& package) {
    Dictionary fields;
    fields.emplace(nameKey, package.name);
    return fields;
}

Dictionary fieldsOf(const model::Rule& rule, const std::string& packageRecordName) {
    const model::Trigger& trigger = rule.blocker.trigger;
    const model::Action& action = rule.blocker.action;
    Dictionary fields;
    fields.emplace(nameKey, rule.name);
    fields.emplace(packageKey, packageRecordName);
    fields.emplace(urlFilterKey, trigger.urlFilter);
    fields.emplace(caseSensitiveKey, trigger.caseSensitive);
    if (trigger.resourceTypes) fields.emplace(resourceTypesKey, rawTexts(*trigger.resourceTypes));
    if (trigger.loadType) fields.emplace(loadTypeKey, rawTexts(*trigger.loadType));
    if (trigger.domainFilter) {
        fields.emplace(domainFilterTypeKey, model::rawValue(trigger.domainFilter->type));
        fields.emplace(domainFilterValuesKey, texts(trigger.domainFilter->values));
    }
    fields.emplace(actionTypeKey, model::rawValue(action.type));
    if (action.selector) fields.emplace(selectorKey, *action.selector);
    return fields;
}

std::optional<CKRecordValue> recordValue(const std::string& field, const Value& value) {
    if (field == packageKey) {
        const auto* name = value.getIf<std::string>();
        if (!name) return std::nullopt;
        return CKRecordValue(platform::CKReference{{*name, rulesZoneID()}, platform::CKReference::Action::none});
    }
    if (const auto* flag = value.getIf<bool>()) return CKRecordValue(std::int64_t{*flag ? 1 : 0});
    if (const auto* string = value.getIf<std::string>()) return CKRecordValue(*string);
    if (const auto* integer = value.getIf<std::int64_t>()) return CKRecordValue(*integer);
    if (const auto* array = value.getIf<platform::Array>()) {
        std::vector<std::string> list;
        for (const Value& element : *array) {
            const auto* item = element.getIf<std::string>();
            if (!item) return std::nullopt;
            list.push_back(*item);
        }
        return CKRecordValue(std::move(list));
    }
    return std::nullopt;
}

std::optional<Value> dictionaryValue(const std::string& field, const CKRecordValue& value) {
    if (const auto* reference = std::get_if<platform::CKReference>(&value)) return Value(reference->recordID.recordName);
    if (const auto* integer = std::get_if<std::int64_t>(&value)) {
        if (field == caseSensitiveKey) return Value(*integer != 0);
        return Value(*integer);
    }
    if (const auto* string = std::get_if<std::string>(&value)) return Value(*string);
    if (const auto* list = std::get_if<std::vector<std::string>>(&value)) return texts(*list);
    return std::nullopt;
}

platform::CKRecordFields recordFields(const Dictionary& fields) {
    platform::CKRecordFields result;
    for (const auto& [key, value] : fields) {
        if (auto converted = recordValue(key, value)) result.insert_or_assign(key, std::move(*converted));
    }
    return result;
}

Dictionary dictionaryFields(const platform::CKRecordFields& fields) {
    Dictionary result;
    for (const auto& [key, value] : fields) {
        if (auto converted = dictionaryValue(key, value)) result.insert_or_assign(key, std::move(*converted));
    }
    return result;
}

std::expected<model::Package, RecordMappingError> packageFromRecord(const platform::CKRecord& record) {
    if (record.recordType() != RecordType::package) return std::unexpected(RecordMappingError::invalidData);
    const std::string* name = text(record, nameKey);
    if (!name) return std::unexpected(RecordMappingError::invalidData);
    std::optional<model::Date> created;
    if (const auto date = record.creationDate()) {
        created = model::Date(std::chrono::milliseconds(date->milliseconds));
    }
    return model::Package(record.recordID().recordName, *name, {}, created);
}

std::expected<model::Rule, RecordMappingError> ruleFromRecord(const platform::CKRecord& record) {
    if (record.recordType() != RecordType::rule) return std::unexpected(RecordMappingError::invalidData);
    const std::string* name = text(record, nameKey);
    const std::string* urlFilter = text(record, urlFilterKey);
    const std::string* actionText = text(record, actionTypeKey);
    if (!name || !urlFilter || !actionText) return std::unexpected(RecordMappingError::invalidData);

    model::Blocker blocker;
    blocker.trigger.urlFilter = *urlFilter;
    if (const CKRecordValue* flag = record.object(caseSensitiveKey)) {
        const auto* integer = std::get_if<std::int64_t>(flag);
        if (!integer) return std::unexpected(RecordMappingError::invalidData);
        blocker.trigger.caseSensitive = *integer != 0;
    }
    if (record.object(resourceTypesKey)) {
        const auto* raw = textList(record, resourceTypesKey);
        if (!raw) return std::unexpected(RecordMappingError::invalidData);
        auto types = casesOf<model::ResourceType>(*raw);
        if (!types) return std::unexpected(types.error());
        blocker.trigger.resourceTypes = std::move(*types);
    }
    if (record.object(loadTypeKey)) {
        const auto* raw = textList(record, loadTypeKey);
        if (!raw) return std::unexpected(RecordMappingError::invalidData);
        auto types = casesOf<model::LoadType>(*raw);
        if (!types) return std::unexpected(types.error());
        blocker.trigger.loadType = std::move(*types);
    }
    if (record.object(domainFilterTypeKey)) {
        const std::string* raw = text(record, domainFilterTypeKey);
        const auto type = raw ? model::fromRawValue<model::DomainFilterType>(*raw) : std::nullopt;
        if (!type) return std::unexpected(RecordMappingError::invalidData);
        model::DomainFilter filter{*type, {}};
        if (record.object(domainFilterValuesKey)) {
            const auto* values = textList(record, domainFilterValuesKey);
            if (!values) return std::unexpected(RecordMappingError::invalidData);
            filter.values = *values;
        }
        blocker.trigger.domainFilter = std::move(filter);
    }
    const auto action = model::fromRawValue<model::ActionType>(*actionText);
    if (!action) return std::unexpected(RecordMappingError::invalidData);
    blocker.action.type = *action;
    if (record.object(selectorKey)) {
        const std::string* selector = text(record, selectorKey);
        if (!selector) return std::unexpected(RecordMappingError::invalidData);
        blocker.action.selector = *selector;
    }
    return model::Rule(record.recordID().recordName, *name, std::move(blocker));
}

std::optional<std::string> packageRecordName(const platform::CKRecord& record) {
    const CKRecordValue* value = record.object(packageKey);
    if (!value) return std::nullopt;
    if (const auto* reference = std::get_if<platform::CKReference>(value)) return reference->recordID.recordName;
    return std::nullopt;
}

}  // namespace tamsel::sync
