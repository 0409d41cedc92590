#include "runtime/StoreError.h"

#include <SQLiteCpp/Exception.h>
#include <fmt/format.h>
#include <sqlite3.h>

namespace tamsel::runtime {

StoreError StoreError::of(int code, std::string_view description, const std::filesystem::path& path) {
    return StoreError{code, std::string(description),
                      fmt::format("[\"SQLiteErrorCode\": {}, \"SQLiteErrorName\": \"{}\", \"path\": \"{}\"]", code,
                                  sqlite3_errstr(code), path.string())};
}

StoreError StoreError::of(const SQLite::Exception& exception, const std::filesystem::path& path) {
    // Connections run with extended result codes, so the code is the extended one.
    const int code = exception.getErrorCode() == -1 ? SQLITE_ERROR : exception.getErrorCode();
    return of(code, exception.what(), path);
}

bool StoreError::isDamage() const {
    const int primary = code & 0xff;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

}  // namespace tamsel::runtime
