#include "platform/Localization.h"

#include <cstdlib>
#include <fmt/format.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>

#include "platform/Files.h"
#include "platform/Log.h"
#include "platform/Resources.h"

namespace tamsel::platform {
namespace {

using Table = std::map<std::string, std::string, std::less<>>;

const SystemLogger& logger() {
    static const SystemLogger instance("Localization");
    return instance;
}

void appendUTF8(std::string& out, char32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The "key" = "value"; syntax of string tables: C and C++ comments, quoted or
// bare words, backslash escapes (\" \\ \n \t \r \uXXXX \UXXXX). A line
// "key"; maps the key to itself. Parsing stops at the first error, keeping the
// entries before it.
class StringsParser {
public:
    explicit StringsParser(std::string_view text) : text_(text) {
        if (text_.starts_with("\xEF\xBB\xBF")) text_.remove_prefix(3);
    }

    std::optional<std::string> error;

    Table parse() {
        Table table;
        for (;;) {
            skipSpaceAndComments();
            if (atEnd()) break;
            auto key = word();
            if (!key) return fail(table, "expected a key");
            skipSpaceAndComments();
            std::string value = *key;
            if (consume('=')) {
                skipSpaceAndComments();
                auto parsed = word();
                if (!parsed) return fail(table, "expected a value");
                value = std::move(*parsed);
                skipSpaceAndComments();
            }
            if (!consume(';')) return fail(table, "expected ';'");
            table.insert_or_assign(std::move(*key), std::move(value));
        }
        return table;
    }

private:
    std::string_view text_;
    std::size_t position_ = 0;

    bool atEnd() const { return position_ >= text_.size(); }
    char peek(std::size_t ahead = 0) const {
        return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0';
    }
    bool consume(char c) {
        if (peek() != c || atEnd()) return false;
        ++position_;
        return true;
    }

    Table fail(Table& table, std::string_view what) {
        std::size_t line = 1;
        for (std::size_t i = 0; i < position_ && i < text_.size(); ++i) line += text_[i] == '\n';
        error = fmt::format("{} on line {}", what, line);
        return std::move(table);
    }

    void skipSpaceAndComments() {
        while (!atEnd()) {
            const char c = peek();
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
                ++position_;
            } else if (c == '/' && peek(1) == '*') {
                const auto end = text_.find("*/", position_ + 2);
                position_ = end == std::string_view::npos ? text_.size() : end + 2;
            } else if (c == '/' && peek(1) == '/') {
                const auto end = text_.find('\n', position_);
                position_ = end == std::string_view::npos ? text_.size() : end + 1;
            } else {
                return;
            }
        }
    }

    static bool isBareCharacter(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
               c == '-' || c == '$' || c == ':' || c == '/';
    }

    std::optional<std::string> word() {
        if (consume('"')) return quoted();
        const std::size_t start = position_;
        while (!atEnd() && isBareCharacter(peek())) ++position_;
        if (position_ == start) return std::nullopt;
        return std::string(text_.substr(start, position_ - start));
    }

    std::optional<char32_t> hex(int digits) {
        char32_t code = 0;
        for (int i = 0; i < digits; ++i) {
            const char c = peek();
            int digit = -1;
            if (c >= '0' && c <= '9') digit = c - '0';
            if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
            if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
            if (digit < 0) return std::nullopt;
            code = code * 16 + static_cast<char32_t>(digit);
            ++position_;
        }
        return code;
    }

    std::optional<std::string> quoted() {
        std::string result;
        while (!atEnd()) {
            const char c = text_[position_++];
            if (c == '"') return result;
            if (c != '\\') {
                result += c;
                continue;
            }
            if (atEnd()) return std::nullopt;
            const char escaped = text_[position_++];
            switch (escaped) {
            case 'n': result += '\n'; break;
            case 't': result += '\t'; break;
            case 'r': result += '\r'; break;
            case 'u':
            case 'U': {
                auto code = hex(4);
                if (!code) return std::nullopt;
                // UTF-16 surrogate pairs arrive as two escapes.
                if (*code >= 0xD800 && *code < 0xDC00 && peek() == '\\' && (peek(1) == 'u' || peek(1) == 'U')) {
                    position_ += 2;
                    auto low = hex(4);
                    if (!low || *low < 0xDC00 || *low >= 0xE000) return std::nullopt;
                    *code = 0x10000 + ((*code - 0xD800) << 10) + (*low - 0xDC00);
                }
                appendUTF8(result, *code);
                break;
            }
            default: result += escaped; break;  // \" \\ \' and anything else stand for themselves
            }
        }
        return std::nullopt;  // unterminated
    }
};

std::filesystem::path stringsDirectory() {
    return resourcesDirectory() / "strings";
}

std::string chooseLanguage(const std::filesystem::path& strings) {
    std::string wanted;
    if (const char* language = std::getenv("TAMSEL_LANGUAGE"); language != nullptr && *language != '\0') {
        wanted = language;
    } else if (const char* lang = std::getenv("LANG"); lang != nullptr) {
        wanted = std::string(lang).substr(0, std::string_view(lang).find_first_of("_.@"));
        if (wanted == "C" || wanted == "POSIX") wanted.clear();
    }
    std::error_code ignored;
    if (!wanted.empty() && std::filesystem::is_directory(strings / wanted, ignored)) return wanted;
    // "pt-BR" without its own folder still has "pt".
    const std::string base = wanted.substr(0, wanted.find_first_of("-_"));
    if (!base.empty() && std::filesystem::is_directory(strings / base, ignored)) return base;
    return "en";
}

Table loadTable(const std::filesystem::path& file) {
    auto content = readFile(file);
    if (!content) {
        if (content.error() != std::errc::no_such_file_or_directory) {
            logger().error("Could not read %s: %s", file.c_str(), content.error().message().c_str());
        }
        return {};
    }
    StringsParser parser(*content);
    Table table = parser.parse();
    if (parser.error) logger().error("Malformed string table %s: %s", file.c_str(), parser.error->c_str());
    return table;
}

struct Tables {
    std::mutex mutex;
    std::optional<std::string> language;
    std::filesystem::path directory;
    // Keyed by language then table; "en" doubles as the fallback.
    std::map<std::pair<std::string, std::string>, Table, std::less<>> loaded;

    void chooseIfNeeded() {
        if (language) return;
        directory = stringsDirectory();
        language = chooseLanguage(directory);
    }

    const Table& table(const std::string& languageName, std::string_view name) {
        auto key = std::make_pair(languageName, std::string(name));
        auto found = loaded.find(key);
        if (found == loaded.end()) {
            found = loaded.emplace(key, loadTable(directory / languageName / (std::string(name) + ".strings"))).first;
        }
        return found->second;
    }
};

Tables& tables() {
    static Tables instance;
    return instance;
}

}  // namespace

std::string localizedString(std::string_view table, std::string_view key) {
    auto& state = tables();
    std::lock_guard lock(state.mutex);
    state.chooseIfNeeded();
    for (const std::string& language : {*state.language, std::string("en")}) {
        const Table& entries = state.table(language, table);
        if (auto found = entries.find(key); found != entries.end()) return found->second;
    }
    return std::string(key);
}

std::string localizedFormat(std::string_view format, std::string_view argument) {
    std::string text;
    bool filled = false;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%' || i + 1 == format.size()) {
            text += format[i];
            continue;
        }
        if (format[i + 1] == '%') {
            text += '%';
            ++i;
            continue;
        }
        std::size_t end = i + 1;
        while (end < format.size() && format[end] == 'l') ++end;
        if (filled || end == format.size() || std::string_view("@diu").find(format[end]) == std::string_view::npos) {
            text += format[i];
            continue;
        }
        text += argument;
        filled = true;
        i = end;
    }
    return text;
}

std::string localizationLanguage() {
    auto& state = tables();
    std::lock_guard lock(state.mutex);
    state.chooseIfNeeded();
    return *state.language;
}

void resetLocalizationForTesting() {
    auto& state = tables();
    std::lock_guard lock(state.mutex);
    state.language.reset();
    state.loaded.clear();
}

}  // namespace tamsel::platform
