#include "runtime/CoreDataStore.h"

#include "platform/Log.h"
#include "platform/UUID.h"
#include "runtime/BlockedResourceDatabase.h"
#include "runtime/BlockedResourceQueries.h"
#include "runtime/BlockedResourceWriter.h"
#include "runtime/URLHost.h"
#include "storage/StoreURL.h"

namespace tamsel::runtime {

std::int64_t total(const ExtensionCounts& counts) {
    std::int64_t sum = 0;
    for (const auto& [type, count] : counts) sum += count;
    return sum;
}

struct CoreDataStore::Impl {
    Impl(std::filesystem::path directory, const platform::Clock& clock)
        : clock(clock), database(std::move(directory) / storeFileName, clock), queries(database), writer(database) {}

    const platform::Clock& clock;
    BlockedResourceDatabase database;
    BlockedResourceQueries queries;
    // Last, so that it is destroyed first: its queued writes finish while the database is open.
    BlockedResourceWriter writer;
};

CoreDataStore::CoreDataStore(std::filesystem::path directory, const platform::Clock& clock)
    : impl_(std::make_unique<Impl>(std::move(directory), clock)) {
    impl_->database.load();
}

CoreDataStore::~CoreDataStore() = default;

CoreDataStore& CoreDataStore::shared() {
    static CoreDataStore store(storage::storeURL(databaseName).parent_path());
    return store;
}

const std::filesystem::path& CoreDataStore::storeURL() const {
    return impl_->database.url();
}

bool CoreDataStore::isLoaded() const {
    return impl_->database.isLoaded();
}

std::string CoreDataStore::storeDescription() const {
    return impl_->database.description();
}

void CoreDataStore::insertRecord(std::string pageURL, std::string blockedURL, model::ExtensionType type,
                                 InsertCompletion completion) {
    BlockedResource record;
    record.id = platform::newUUIDString();
    record.date = impl_->clock.now();
    record.extensionID = std::string(model::rawValue(type));
    record.blockedURL = std::move(blockedURL);
    record.pageDomain = urlHost(pageURL);
    record.pageURL = std::move(pageURL);
    impl_->writer.insert({std::move(record)},
                         [completion = std::move(completion)](const std::optional<StoreError>& error) {
                             if (error) platform::consolePrint("Fail save in backgroundContext: " + error->description);
                             else platform::consolePrint("Saved History record into Core Data background context");
                             if (completion) completion(error);
                         });
}

void CoreDataStore::insert(std::vector<BlockedResource> records, InsertCompletion completion) {
    impl_->writer.insert(std::move(records), std::move(completion));
}

void CoreDataStore::saveContext(std::function<void()> completion) {
    // Edits can only be committed into an open store; like a failed commit
    // of pending edits this is worth a line, and the save goes on regardless.
    if (!isLoaded()) {
        static platform::SystemLogger logger("CoreData");
        logger.error("%s unable to commit editing before saving", storeDescription().c_str());
    }
    const bool saving = impl_->writer.whenWrittenSinceLastSave([completion](const std::optional<StoreError>& failure) {
        if (failure) {
            platform::consolePrint("Unresolved error " + failure->description +
                                   " while saving Core Data context: " + failure->userInfo);
        } else {
            platform::consolePrint("Saved History Core Data");
        }
        if (completion) completion();
    });
    if (!saving && completion) completion();
}

void CoreDataStore::waitUntilWritten() {
    impl_->writer.waitUntilWritten();
}

std::optional<ExtensionCounts> CoreDataStore::sumBlockedResourcesPerExtension(std::optional<platform::Date> start,
                                                                              std::optional<platform::Date> end) const {
    return impl_->queries.counts(start, end);
}

std::optional<platform::Date> CoreDataStore::firstBlockedResourceDate() const {
    return impl_->queries.firstDate();
}

std::optional<std::vector<BlockedResource>> CoreDataStore::blockedResources(std::string_view pageURL) const {
    return impl_->queries.records(pageURL);
}

}  // namespace tamsel::runtime
