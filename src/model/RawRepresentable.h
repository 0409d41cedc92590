#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

// The closed vocabularies of the rule model (resource types, action types,
// extension types, file names, ...) are enumerations whose cases each have one
// fixed raw string: their JSON form, a package identifier or a file name.
//
// An enumeration joins by specialising RawValueTable with the raw strings of
// its cases, in case order; its enumerators must be numbered 0..N-1 in that
// same order. It then gets the uniform API below:
//
//     rawValue(ResourceType::styleSheet)          == "style-sheet"
//     fromRawValue<ResourceType>("style-sheet")   == ResourceType::styleSheet
//     fromRawValue<ResourceType>("stylesheet")    == std::nullopt
//     allCases<ResourceType>()                    // every case, in order
namespace tamsel::model {

template <typename E>
struct RawValueTable;

template <typename E>
concept RawRepresentable = std::is_enum_v<E> && requires {
    { RawValueTable<E>::rawValues.size() } -> std::convertible_to<std::size_t>;
};

template <RawRepresentable E>
constexpr std::string_view rawValue(E value) {
    return RawValueTable<E>::rawValues[static_cast<std::size_t>(value)];
}

template <RawRepresentable E>
constexpr std::optional<E> fromRawValue(std::string_view raw) {
    const auto& table = RawValueTable<E>::rawValues;
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (table[i] == raw) return static_cast<E>(i);
    }
    return std::nullopt;
}

namespace detail {
template <typename E, std::size_t... I>
constexpr std::array<E, sizeof...(I)> makeAllCases(std::index_sequence<I...>) {
    return {static_cast<E>(I)...};
}
template <RawRepresentable E>
inline constexpr auto allCasesOf =
    makeAllCases<E>(std::make_index_sequence<RawValueTable<E>::rawValues.size()>{});
}  // namespace detail

// Every case of E, in the vocabulary's fixed order.
template <RawRepresentable E>
constexpr const auto& allCases() {
    return detail::allCasesOf<E>;
}

}  // namespace tamsel::model
