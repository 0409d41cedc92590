#pragma once

#include <filesystem>

// Where the files that ship with the program lie: the string tables
// (strings/) and the filter lists a new data root starts with (packages/).
// $TAMSEL_RESOURCES names the folder for an installed program; else it is
// the source tree's resources folder, fixed when the program is built, so a
// program run from its build tree (and CI) finds them without set-up.
namespace tamsel::platform {

std::filesystem::path resourcesDirectory();

}  // namespace tamsel::platform
