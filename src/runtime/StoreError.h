#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace SQLite {
class Exception;
}

namespace tamsel::runtime {

// Why an operation of the blocked-resource store failed.
struct StoreError {
    int code = 0;             // the SQLite (extended) result code, 0 when not from SQLite
    std::string description;  // one line, for people
    std::string userInfo;     // printed details: code, database path

    bool operator==(const StoreError&) const = default;

    // An error of the database at `path`, with its details printed.
    static StoreError of(int code, std::string_view description, const std::filesystem::path& path);
    static StoreError of(const SQLite::Exception& exception, const std::filesystem::path& path);

    // A damaged file: not a database, or a database whose pages are garbage.
    bool isDamage() const;
};

}  // namespace tamsel::runtime
