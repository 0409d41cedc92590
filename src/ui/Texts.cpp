#include "ui/Texts.h"

#include <array>

#include "model/LocalizationTableName.h"
#include "platform/Localization.h"

namespace tamsel::ui {

std::string commonUIText(std::string_view key) {
    return platform::localizedString(model::rawValue(model::LocalizationTableName::commonUI), key);
}

std::string commonUIFormat(std::string_view key, std::string_view argument) {
    return platform::localizedFormat(commonUIText(key), argument);
}

std::string uppercased(std::string_view text) {
    std::string upper(text);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return upper;
}

std::string formattedCount(std::int64_t value) {
    // Digits of the magnitude, taken without negating (INT64_MIN has no
    // positive counterpart).
    const bool negative = value < 0;
    std::string digits;
    do {
        const auto digit = value % 10;
        digits.insert(digits.begin(), static_cast<char>('0' + (negative ? -digit : digit)));
        value /= 10;
    } while (value != 0);
    std::string grouped;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) grouped += ',';
        grouped += digits[i];
    }
    return negative ? "-" + grouped : grouped;
}

std::string formattedDate(platform::Date date, const platform::Calendar& calendar) {
    static constexpr std::array<const char*, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const platform::LocalDateTime local = calendar.localDateTime(date);
    return std::string(months[(local.month - 1) % 12]) + " " + std::to_string(local.day) + ", " +
           std::to_string(local.year);
}

}  // namespace tamsel::ui
