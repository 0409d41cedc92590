#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/Package.h"

// The contact row's mail: a diagnostic block about this installation under a
// short greeting, in a mail link to the support address.
namespace tamsel::ui {

struct FeedbackMail {
    static constexpr std::string_view subject = "Tamsel Feedback";
    static constexpr std::string_view greeting = "Dear developer,\n\n\n\n\n\n\n\nWith love,\n\n";
    // Where the user identifier lives (SharedDefaults); made on first use.
    static constexpr std::string_view userIdentifierKey = "UserIdentifier";

    // One group of the package listing: a title and its packages.
    struct PackageGroup {
        std::string title;
        std::vector<model::Package> packages;
    };

    // The block, line by line: the application and its build, the system,
    // the device model (when known), the installed rule version (when
    // known), the user identifier, the original application version (when
    // stored), "Sent from: Toolbar Extension", the page's URL (when known),
    // then per group its title in upper case and each package's name with
    // " [on]" or " [off]".
    static std::string diagnosticBlock(const std::optional<std::string>& pageURL,
                                       const std::vector<PackageGroup>& groups);

    static std::string body(const std::string& diagnosticBlock) { return std::string(greeting) + diagnosticBlock; }

    // "mailto:<address>?subject=…&body=…", both percent-encoded for a URL's
    // query; none when the address is no mail address.
    static std::optional<std::string> link(std::string_view address, std::string_view body);

    // Percent-encodes everything outside the URL-query character set
    // (unreserved characters and !$'()*+,;=:@/?), and also "&", "=", "+"
    // and "#", which would end a query value.
    static std::string percentEncodedQueryValue(std::string_view text);

    // The stored identifier; a new UUID is stored the first time.
    static std::string userIdentifier();
};

}  // namespace tamsel::ui
