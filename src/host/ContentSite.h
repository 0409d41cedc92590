#pragma once

#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "platform/ContentRuleMatcher.h"
#include "platform/Safari.h"

namespace httplib {
class Server;
}

// The page area's origin: a second loopback server, on a port of its own, so
// that no page shown in the page area can use the API (the API refuses any
// Origin but its own). It serves the demo sites of resources/sites/ as if
// their virtual hosts existed: http://127.0.0.1:PORT/m/TAB/https/HOST/PATH
// is the page area showing https://HOST/PATH in tab TAB (its main frame), and
// /t/TAB/https/HOST/PATH a load of that page. Every request goes through
// the enabled content blockers with the resource type the browser gives in
// Sec-Fetch-Dest; blocked ones fail (and are reported to the extension as
// Safari reports them), HTML documents get the page's css-display-none style
// sheet and the content script, and addresses in served text are rewritten
// to stay on this origin. Hosts without a demo site get an "offline" page.
namespace tamsel::host {

// The load type WebKit would give a request whose Sec-Fetch-Dest is `dest`.
platform::LoadResourceType resourceTypeForFetchDest(std::string_view dest);

// `text` with every "http://" and "https://" address turned into the page
// area's path for tab `tab` ("/t/TAB/https/...").
std::string rewriteAddresses(std::string_view text, std::string_view tab);

// The file of a demo site that stands for `host` and `path` (the query left
// off; "/" and folders give index.html); nothing for a host without a site or
// a path that leaves the site's folder.
std::optional<std::filesystem::path> siteFile(const std::filesystem::path& sites, std::string_view host,
                                              std::string_view path);

class ContentSite {
public:
    ContentSite(std::shared_ptr<platform::LocalSafariApplication> safari, std::filesystem::path sites);
    ~ContentSite();
    ContentSite(const ContentSite&) = delete;
    ContentSite& operator=(const ContentSite&) = delete;

    // Binds 127.0.0.1 on a free port.
    std::expected<std::uint16_t, std::string> bind();
    void start();
    void stop();
    std::uint16_t port() const { return port_; }

private:
    struct Routes;
    std::shared_ptr<platform::LocalSafariApplication> safari_;
    std::filesystem::path sites_;
    std::unique_ptr<httplib::Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

}  // namespace tamsel::host
