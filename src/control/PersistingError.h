#pragma once

#include <array>
#include <string_view>

#include "model/RawRepresentable.h"

namespace tamsel::control {

// Why the data manager refused to save packages.
enum class PersistingError {
    // Every package list is empty: writing would wipe the user's files with
    // nothing, which only happens when the model was never loaded.
    allPackagesEmpty,
};

}  // namespace tamsel::control

namespace tamsel::model {

template <>
struct RawValueTable<control::PersistingError> {
    static constexpr std::array<std::string_view, 1> rawValues{"allPackagesEmpty"};
};

}  // namespace tamsel::model
