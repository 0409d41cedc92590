#include "host/ContentSite.h"

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>

#include "host/PageLoads.h"
#include "host/Uncompressed.h"
#include "ui/Texts.h"

namespace tamsel::host {

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string contentType(const fs::path& path) {
    const std::string ext = path.extension().string();
    if (ext == ".html") return "text/html; charset=utf-8";
    if (ext == ".css") return "text/css; charset=utf-8";
    if (ext == ".js") return "text/javascript; charset=utf-8";
    if (ext == ".json") return "application/json";
    if (ext == ".svg") return "image/svg+xml";
    if (ext == ".png") return "image/png";
    return "application/octet-stream";
}

std::string escapeHTML(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

// What the page gets before its own head: the hidden elements' style sheet
// and the content script that talks with the window around the page area.
std::string injection(const std::vector<std::string>& selectors) {
    std::string head;
    if (!selectors.empty()) {
        head += "<style id=\"tamsel-hidden\">";
        // Raw text: only "<" could end the element early; CSS reads "\3c " as "<".
        for (std::size_t i = 0; i < selectors.size(); ++i) {
            std::string selector = selectors[i];
            for (std::size_t at; (at = selector.find('<')) != std::string::npos;) selector.replace(at, 1, "\\3c ");
            head += (i ? ", " : "") + selector;
        }
        head += " { display: none !important; }</style>";
    }
    head += "<script src=\"/_tamsel/content.js\"></script>";
    return head;
}

std::string withInjection(std::string html, const std::string& head) {
    const auto at = html.find("<head>");
    if (at == std::string::npos) return head + html;
    return html.insert(at + 6, head);
}

std::string offlinePage(const std::string& host) {
    return "<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>" +
           escapeHTML(ui::commonUIText("web.offline.title")) +
           "</title><style>body{font:15px system-ui,sans-serif;margin:15vh auto;max-width:32em;color:#555;"
           "text-align:center}@media (prefers-color-scheme: dark){body{background:#1c1c1e;color:#ccc}}</style>"
           "</head><body><h1>" + escapeHTML(ui::commonUIText("web.offline.title")) + "</h1><p>" +
           escapeHTML(ui::commonUIFormat("web.offline.message", host)) + "</p></body></html>";
}

}  // namespace

platform::LoadResourceType resourceTypeForFetchDest(std::string_view dest) {
    using Type = platform::LoadResourceType;
    if (dest == "document" || dest == "iframe" || dest == "frame" || dest == "embed" || dest == "object")
        return Type::document;
    if (dest == "image") return Type::image;
    if (dest == "style") return Type::styleSheet;
    if (dest == "script" || dest == "worker" || dest == "sharedworker" || dest == "serviceworker")
        return Type::script;
    if (dest == "font") return Type::font;
    if (dest == "audio" || dest == "video" || dest == "track") return Type::media;
    if (dest == "empty") return Type::fetch;
    return Type::other;
}

std::string rewriteAddresses(std::string_view text, std::string_view tab) {
    static const std::regex address(R"((https?)://)", std::regex::icase);
    return std::regex_replace(std::string(text), address, "/t/" + std::string(tab) + "/$1/");
}

std::optional<fs::path> siteFile(const fs::path& sites, std::string_view host, std::string_view path) {
    if (host.empty() || host.find('/') != std::string_view::npos || host.front() == '.') return std::nullopt;
    if (const auto query = path.find_first_of("?#"); query != std::string_view::npos) path = path.substr(0, query);
    const fs::path root = sites / std::string(host);
    std::error_code error;
    if (!fs::is_directory(root, error)) return std::nullopt;
    fs::path file = root;
    std::string_view rest = path;
    while (!rest.empty()) {
        const auto slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        if (part == ".." || (!part.empty() && part.front() == '.')) return std::nullopt;
        if (!part.empty()) file /= std::string(part);
        if (slash == std::string_view::npos) break;
        rest = rest.substr(slash + 1);
    }
    if (fs::is_directory(file, error)) file /= "index.html";
    return file;
}

struct ContentSite::Routes {
    ContentSite& site;

    void add(httplib::Server& server) {
        // Only requests for this server by its loopback name (no rebinding).
        server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            answerUncompressed(req);
            const std::string port = std::to_string(site.port_);
            const std::string host = req.get_header_value("Host");
            if (host == "127.0.0.1:" + port || host == "localhost:" + port)
                return httplib::Server::HandlerResponse::Unhandled;
            res.status = 403;
            return httplib::Server::HandlerResponse::Handled;
        });
        server.Get("/_tamsel/content.js", [this](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_content(readFile(site.sites_ / "_content.js"), "text/javascript; charset=utf-8");
        });
        // /m/ is the page area itself (the tab's main frame), /t/ whatever it loads.
        server.Get(R"(/m/([^/]+)/(https?)/([^/?#]+)(.*))", [this](const httplib::Request& req, httplib::Response& res) {
            load(req, res, true);
        });
        server.Get(R"(/t/([^/]+)/(https?)/([^/?#]+)(.*))", [this](const httplib::Request& req, httplib::Response& res) {
            load(req, res, false);
        });
    }

    void load(const httplib::Request& req, httplib::Response& res, bool mainFrame) {
        res.set_header("Cache-Control", "no-store");
        const std::string tabID = req.matches[1];
        const std::string scheme = req.matches[2];
        const std::string host = req.matches[3];
        // The path with its query, as the page asked for it.
        std::string path = req.matches[4];
        if (const auto q = req.target.find('?'); q != std::string::npos) path += req.target.substr(q);
        if (path.empty() || path.front() != '/') path.insert(0, "/");
        const std::string url = scheme + "://" + host + path;

        auto tab = site.safari_->tab(tabID);
        if (!tab || tab->identifier() != tabID) {
            res.status = 404;
            return;
        }
        const auto type = mainFrame ? platform::LoadResourceType::document
                                    : resourceTypeForFetchDest(req.get_header_value("Sec-Fetch-Dest"));
        // The page area's own document is the tab's main document: the tab
        // goes there first, as when a link is followed in Safari.
        if (mainFrame && tab->page()->url() != url) site.safari_->navigateTab(tabID, url);
        const auto pageURL = tab->page()->url().value_or(url);

        const EnabledContentBlockers blockers = enabledContentBlockers();
        const auto effects = platform::evaluateLoad(blockers.lists, {url, mainFrame ? "" : pageURL, type});
        for (const auto& identifier : effects.blockedBy)
            site.safari_->reportBlockedResources(identifier, {url}, tab->page());
        if (effects.blocked) {
            res.status = 403;
            res.set_header("X-Tamsel-Blocked", "1");
            return;
        }
        if (effects.evaluated && effects.url != url) {
            std::string target = rewriteAddresses(effects.url, tabID);
            if (mainFrame) {
                site.safari_->navigateTab(tabID, effects.url, platform::LocalSafariApplication::Navigation::redirect);
                target[1] = 'm';
            }
            res.set_redirect(target, 307);
            return;
        }
        const auto file = siteFile(site.sites_, host, path);
        std::error_code error;
        if (!file || !fs::is_regular_file(*file, error)) {
            if (mainFrame || type == platform::LoadResourceType::document) {
                res.set_content(withInjection(offlinePage(host), injection({})), "text/html; charset=utf-8");
            } else {
                res.status = 404;
            }
            return;
        }
        const std::string mime = contentType(*file);
        std::string body = readFile(*file);
        if (mime.starts_with("text/html")) {
            body = withInjection(rewriteAddresses(body, tabID),
                                 injection(mainFrame ? pageStyleSheet(blockers, url) : effects.selectors));
        } else if (mime.starts_with("text/")) {  // not SVG: its xmlns is an address too
            body = rewriteAddresses(body, tabID);
        }
        res.set_content(body, mime);
    }
};

ContentSite::ContentSite(std::shared_ptr<platform::LocalSafariApplication> safari, fs::path sites)
    : safari_(std::move(safari)), sites_(std::move(sites)), server_(std::make_unique<httplib::Server>()) {
    server_->new_task_queue = [] { return new httplib::ThreadPool(8); };
    server_->set_keep_alive_timeout(2);
}

ContentSite::~ContentSite() { stop(); }

std::expected<std::uint16_t, std::string> ContentSite::bind() {
    const int bound = server_->bind_to_any_port("127.0.0.1");
    if (bound <= 0) return std::unexpected("could not bind the page area's server to a free port");
    port_ = static_cast<std::uint16_t>(bound);
    auto routes = std::make_shared<Routes>(Routes{*this});
    routes->add(*server_);
    server_->set_logger([routes](const httplib::Request&, const httplib::Response&) {});
    return port_;
}

void ContentSite::start() {
    auto ended = std::make_shared<std::atomic<bool>>(false);
    thread_ = std::thread([this, ended] {
        server_->listen_after_bind();
        ended->store(true);
    });
    while (!server_->is_running() && !ended->load()) std::this_thread::sleep_for(1ms);
}

void ContentSite::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

}  // namespace tamsel::host
