#include "cloud/SQLDatabase.h"

namespace tamsel::cloud {

std::unique_ptr<SQLDatabase> openPostgreSQLDatabase(const std::string&) { return nullptr; }

}  // namespace tamsel::cloud
