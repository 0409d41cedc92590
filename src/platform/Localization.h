#pragma once

#include <string>
#include <string_view>

// The product's string tables ("TamselKit+Localizable", "CommonUI+Localizable",
// "Shortcut+Localizable"), loaded from resources/strings/<language>/<table>.strings.
// A key without a translation yields the key itself.
//
// The folder is strings/ of the resources (platform/Resources.h):
// $TAMSEL_RESOURCES/strings, else the source tree's resources/strings. The language is $TAMSEL_LANGUAGE, else the
// language part of $LANG ("de" of "de_DE.UTF-8"), else "en"; a language
// without a folder falls back to "en", and so does a key that the language's
// table lacks. Tables are read once, on first use; thread-safe.
namespace tamsel::platform {

std::string localizedString(std::string_view table, std::string_view key);

// Fills the first printf-style conversion of a localised format ("%@",
// "%d", "%ld", ...) with `argument`; "%%" stands for "%". A format without
// a conversion is returned as it stands (a missing translation shows the key).
std::string localizedFormat(std::string_view format, std::string_view argument);

// The language whose tables are read (after the fallback to "en").
std::string localizationLanguage();

// Forgets the loaded tables and the chosen language, so that the next lookup
// reads the environment and the files again.
void resetLocalizationForTesting();

}  // namespace tamsel::platform
