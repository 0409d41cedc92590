#include "host/ServeApi.h"

#include <httplib.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/ExtensionManager.h"
#include "host/PageLoads.h"
#include "host/Uncompressed.h"
#include "model/ExtensionType.h"
#include "model/RawRepresentable.h"
#include "platform/ContentRuleMatcher.h"
#include "platform/DispatchQueue.h"
#include "platform/Resources.h"
#include "platform/Value.h"
#include "runtime/CategoryCounts.h"
#include "runtime/HistoryPeriodType.h"
#include "ui/Texts.h"
#include "ui/Theme.h"
#include "ui/WhitelistViewController.h"

namespace tamsel::host {

namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::Value;
using ui::SafariExtensionViewController;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

// How long a request waits for Safari and the extension to settle.
constexpr auto settleTimeout = 10s;

// --- JSON out -------------------------------------------------------------------------------

void string(Writer& w, std::string_view text) { w.String(text.data(), static_cast<rapidjson::SizeType>(text.size())); }

void key(Writer& w, std::string_view name) { w.Key(name.data(), static_cast<rapidjson::SizeType>(name.size())); }

void optionalString(Writer& w, const std::optional<std::string>& text) {
    if (text)
        string(w, *text);
    else
        w.Null();
}

void strings(Writer& w, const std::vector<std::string>& texts) {
    w.StartArray();
    for (const auto& text : texts) string(w, text);
    w.EndArray();
}

// A platform Value as JSON, written into `w`.
void value(Writer& w, const Value& v) {
    const std::string json = v.toJSON();
    w.RawValue(json.data(), json.size(), rapidjson::kObjectType);
}

std::string json(const std::function<void(Writer&)>& body) {
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    body(w);
    return buffer.GetString();
}

void reply(httplib::Response& res, const std::string& body, int status = 200) {
    res.status = status;
    res.set_content(body, "application/json");
}

void fail(httplib::Response& res, int status, const std::string& sentence) {
    reply(res, json([&](Writer& w) {
              w.StartObject();
              key(w, "error");
              string(w, sentence);
              w.EndObject();
          }),
          status);
}

void ok(httplib::Response& res) { reply(res, "{}"); }

// --- JSON in --------------------------------------------------------------------------------

// The request's body as a JSON object; an empty body is an empty object.
std::optional<Dictionary> object(const httplib::Request& req, httplib::Response& res) {
    if (req.body.find_first_not_of(" \t\r\n") == std::string::npos) return Dictionary{};
    auto parsed = Value::fromJSON(req.body);
    if (!parsed) {
        fail(res, 400, "The request body is not valid JSON.");
        return std::nullopt;
    }
    if (!parsed->isDictionary()) {
        fail(res, 400, "The request body must be a JSON object.");
        return std::nullopt;
    }
    return *parsed->asDictionary();
}

const Value* field(const Dictionary& body, const std::string& name) {
    auto it = body.find(name);
    return it == body.end() ? nullptr : &it->second;
}

std::optional<std::string> stringField(const Dictionary& body, const std::string& name, httplib::Response& res) {
    const Value* v = field(body, name);
    if (!v || !v->asString()) {
        fail(res, 400, "\"" + name + "\" must be a string.");
        return std::nullopt;
    }
    return *v->asString();
}

std::optional<bool> boolField(const Dictionary& body, const std::string& name, httplib::Response& res) {
    const Value* v = field(body, name);
    if (!v || !v->asBool()) {
        fail(res, 400, "\"" + name + "\" must be true or false.");
        return std::nullopt;
    }
    return *v->asBool();
}

// --- Popover rendering ------------------------------------------------------------------------

void renderAlert(Writer& w, const std::shared_ptr<ui::AlertViewController>& alert) {
    if (!alert) {
        w.Null();
        return;
    }
    w.StartObject();
    key(w, "title");
    string(w, alert->titleText());
    key(w, "message");
    string(w, alert->messageText());
    key(w, "ok");
    string(w, alert->okButtonText());
    key(w, "cancel");
    optionalString(w, alert->showCancelButton() ? std::optional(alert->cancelButtonText()) : std::nullopt);
    w.EndObject();
}

void renderWhitelist(Writer& w, const ui::WhitelistViewController& editor) {
    static const char* kinds[] = {"turnOffSwitch", "disableAllSwitch", "categoriesHeader", "contentBlockerSwitch"};
    key(w, "title");
    string(w, editor.titleText());
    key(w, "saving");
    w.Bool(editor.isSaving());
    key(w, "rows");
    w.StartArray();
    for (const auto& row : editor.rows()) {
        w.StartObject();
        key(w, "id");
        string(w, row.id);
        key(w, "kind");
        string(w, kinds[static_cast<int>(row.kind)]);
        key(w, "section");
        w.Int(row.section);
        key(w, "title");
        string(w, row.title);
        key(w, "icon");
        optionalString(w, row.icon);
        if (row.switchOn) {
            key(w, "switch");
            w.Bool(*row.switchOn);
        }
        if (row.extension) {
            key(w, "extension");
            string(w, model::rawValue(*row.extension));
        }
        w.EndObject();
    }
    w.EndArray();
}

void renderStatistics(Writer& w, const ui::BlockingStatsViewController& stats) {
    key(w, "title");
    string(w, stats.titleText());
    key(w, "period");
    string(w, model::rawValue(stats.periodType()));
    const auto picker = stats.picker();
    key(w, "picker");
    w.StartObject();
    key(w, "periods");
    w.StartArray();
    for (auto period : picker.periods) string(w, model::rawValue(period));
    w.EndArray();
    key(w, "labels");
    strings(w, picker.labels);
    key(w, "selected");
    w.Int(picker.selectedIndex);
    w.EndObject();
    key(w, "categories");
    w.StartArray();
    for (const auto& category : stats.categories()) {
        w.StartObject();
        key(w, "id");
        string(w, category.id);
        key(w, "label");
        string(w, category.label);
        key(w, "icon");
        string(w, category.icon);
        key(w, "tint");
        w.StartObject();
        key(w, "light");
        string(w, category.tint.light.hex());
        key(w, "dark");
        string(w, category.tint.dark.hex());
        w.EndObject();
        key(w, "tooltip");
        optionalString(w, category.tooltip);
        key(w, "value");
        if (category.value)
            w.Int64(*category.value);
        else
            w.Null();
        key(w, "text");
        optionalString(w, category.text);
        w.EndObject();
    }
    w.EndArray();
    const auto& chart = stats.chart();
    key(w, "chart");
    w.StartObject();
    key(w, "points");
    w.StartArray();
    for (const auto& point : chart.points) {
        w.StartObject();
        key(w, "date");
        string(w, platform::formatISO8601(point.date));
        key(w, "total");
        w.Int64(point.total);
        key(w, "counts");
        w.StartObject();
        for (const auto& [extension, count] : point.counts) {
            key(w, model::rawValue(extension));
            w.Int64(count);
        }
        w.EndObject();
        // The same point folded into the counters' categories: a line per category.
        const auto folded = runtime::categoryCounts(point.counts);
        key(w, "categories");
        w.StartObject();
        key(w, "ads");
        w.Int64(folded.ads);
        key(w, "trackers");
        w.Int64(folded.trackers);
        key(w, "others");
        w.Int64(folded.others);
        w.EndObject();
        w.EndObject();
    }
    w.EndArray();
    key(w, "notEnoughData");
    optionalString(w, chart.notEnoughDataText);
    key(w, "xAxisShowsHoursOnly");
    w.Bool(chart.xAxisShowsHoursOnly);
    key(w, "xAxisShowsYear");
    w.Bool(chart.xAxisShowsYear);
    w.EndObject();
    key(w, "notes");
    w.StartObject();
    key(w, "text");
    string(w, stats.notes().text);
    key(w, "firstBlockedResourceDate");
    optionalString(w, stats.notes().firstBlockedResourceDate);
    w.EndObject();
}

void renderHistory(Writer& w, const ui::BlockedHistoryViewController& history) {
    key(w, "title");
    string(w, history.titleText());
    key(w, "sections");
    w.StartArray();
    for (const auto& section : history.sections()) {
        w.StartObject();
        key(w, "extension");
        string(w, model::rawValue(section.extension));
        key(w, "title");
        string(w, section.title);
        key(w, "urls");
        strings(w, section.urls);
        w.EndObject();
    }
    w.EndArray();
    key(w, "badgeSwitch");
    w.StartObject();
    key(w, "label");
    string(w, history.badgeButtonLabel());
    key(w, "icon");
    string(w, ui::BlockedHistoryViewController::badgeButtonIcon);
    key(w, "on");
    w.Bool(history.badgeSwitchOn());
    w.EndObject();
}

void renderReport(Writer& w, const ui::ReportSiteViewController& report) {
    key(w, "title");
    string(w, report.titleText());
    key(w, "prompt");
    string(w, report.prompt());
    key(w, "placeholder");
    string(w, report.placeholder());
    key(w, "footer");
    string(w, report.footer());
    key(w, "note");
    string(w, report.note());
    key(w, "sendButton");
    optionalString(w, report.sendButtonVisible() ? std::optional(report.sendButtonTitle()) : std::nullopt);
    key(w, "sending");
    w.Bool(report.isSending());
    key(w, "comment");
    string(w, report.comment());
    key(w, "types");
    w.StartArray();
    for (const auto& row : report.typeRows()) {
        w.StartObject();
        key(w, "id");
        string(w, row.id);
        key(w, "title");
        string(w, row.title);
        key(w, "checked");
        w.Bool(row.checked);
        w.EndObject();
    }
    w.EndArray();
}

void renderChild(Writer& w, const std::optional<SafariExtensionViewController::ChildView>& child) {
    if (!child) {
        w.Null();
        return;
    }
    w.StartObject();
    key(w, "kind");
    string(w, SafariExtensionViewController::kindName(*child));
    std::visit(
        [&w](const auto& view) {
            using View = std::decay_t<decltype(*view)>;
            if constexpr (std::is_same_v<View, ui::WhitelistViewController>) renderWhitelist(w, *view);
            if constexpr (std::is_same_v<View, ui::BlockingStatsViewController>) renderStatistics(w, *view);
            if constexpr (std::is_same_v<View, ui::BlockedHistoryViewController>) renderHistory(w, *view);
            if constexpr (std::is_same_v<View, ui::ReportSiteViewController>) renderReport(w, *view);
        },
        *child);
    w.EndObject();
}

std::string renderPopover(const SafariExtensionViewController& popover, bool shown) {
    return json([&](Writer& w) {
        w.StartObject();
        key(w, "shown");
        w.Bool(shown);
        key(w, "rows");
        w.StartArray();
        for (const auto& row : popover.rows()) {
            w.StartObject();
            key(w, "id");
            string(w, row.id);
            key(w, "kind");
            string(w, row.kind == SafariExtensionViewController::Row::Kind::header ? "header" : "cell");
            key(w, "section");
            w.Int(row.section);
            key(w, "title");
            string(w, row.title);
            key(w, "description");
            optionalString(w, row.description);
            key(w, "icon");
            optionalString(w, row.icon);
            if (row.switchOn) {
                key(w, "switch");
                w.Bool(*row.switchOn);
            }
            if (!row.counters.empty()) {
                key(w, "counters");
                w.StartArray();
                for (const auto& counter : row.counters) {
                    w.StartObject();
                    key(w, "id");
                    string(w, counter.id);
                    key(w, "label");
                    string(w, counter.label);
                    key(w, "description");
                    string(w, counter.description);
                    key(w, "value");
                    w.Int64(counter.value);
                    key(w, "text");
                    string(w, counter.text);
                    w.EndObject();
                }
                w.EndArray();
            }
            if (row.button) {
                key(w, "button");
                w.StartObject();
                key(w, "image");
                string(w, row.button->image);
                key(w, "tooltip");
                string(w, row.button->tooltip);
                w.EndObject();
            }
            key(w, "selectable");
            w.Bool(row.selectable);
            key(w, "smallTopOffset");
            w.Bool(row.smallTopOffset);
            key(w, "hasCustomAction");
            w.Bool(row.hasCustomAction);
            w.EndObject();
        }
        w.EndArray();
        key(w, "child");
        renderChild(w, popover.presentedChild());
        key(w, "alert");
        renderAlert(w, popover.presentedAlert());
        w.EndObject();
    });
}

// Answers an action's outcome: {} or 409 with the model's sentence.
void outcome(httplib::Response& res, const SafariExtensionViewController::Outcome& result) {
    if (result)
        ok(res);
    else
        fail(res, 409, result.error());
}

// What the page needs besides the models: the page area's origin, the texts
// of the window around it (from the string tables) and the theme's colours.
std::string pageJSON(std::uint16_t contentPort) {
    static constexpr std::string_view textKeys[] = {
        "app-name", "web.address", "web.back", "web.reload", "web.new-tab", "web.close-tab", "web.tabs",
        "web.popover", "web.page-area", "web.context-menu.hide-element", "web.close", "web.chart",
        "web.offline.title"};
    return json([&](Writer& w) {
        w.StartObject();
        key(w, "contentOrigin");
        string(w, contentPort ? "http://127.0.0.1:" + std::to_string(contentPort) : std::string());
        key(w, "texts");
        w.StartObject();
        for (auto name : textKeys) {
            key(w, name);
            string(w, ui::commonUIText(name));
        }
        w.EndObject();
        const auto theme = ui::Themes::current();
        key(w, "theme");
        w.StartObject();
        key(w, "name");
        string(w, theme->name());
        key(w, "font");
        string(w, theme->usesSystemFonts() ? "system" : "circular");
        key(w, "colors");
        w.StartObject();
        for (auto role : model::allCases<ui::ColorRole>()) {
            const auto colors = theme->colors(role);
            if (colors.empty()) continue;
            key(w, model::rawValue(role));
            w.StartObject();
            key(w, "light");
            string(w, colors.front().light.hex());
            key(w, "dark");
            string(w, colors.front().dark.hex());
            w.EndObject();
        }
        w.EndObject();
        w.EndObject();
        w.EndObject();
    });
}

std::string tabsJSON(const platform::LocalSafariApplication& safari) {
    return json([&](Writer& w) {
        w.StartObject();
        key(w, "windows");
        w.StartArray();
        for (const auto& window : safari.windows()) {
            w.StartObject();
            key(w, "id");
            string(w, window.identifier);
            key(w, "front");
            w.Bool(window.front);
            key(w, "tabs");
            w.StartArray();
            for (const auto& tab : window.tabs) {
                w.StartObject();
                key(w, "id");
                string(w, tab.identifier);
                key(w, "url");
                optionalString(w, tab.url);
                key(w, "active");
                w.Bool(tab.active);
                key(w, "canGoBack");
                w.Bool(tab.canGoBack);
                w.EndObject();
            }
            w.EndArray();
            w.EndObject();
        }
        w.EndArray();
        w.EndObject();
    });
}

}  // namespace

// --- Routes ------------------------------------------------------------------------------------

struct ServeApi::Routes {
    ServeApi& api;

    platform::LocalSafariApplication& safari() const { return *api.parts_.safari; }

    void settle() const { safari().waitUntilQuiet(settleTimeout); }

    // Runs `body` on the main queue, where the popover's models live.
    template <class F>
    auto onMain(F&& body) const {
        return platform::DispatchQueue::main().sync(std::forward<F>(body));
    }

    std::shared_ptr<platform::LocalSafariTab> tab(const httplib::Request& req, httplib::Response& res) const {
        auto found = safari().tab(req.matches[1]);
        if (!found || found->identifier() != req.matches[1]) {
            fail(res, 404, "There is no tab " + std::string(req.matches[1]) + ".");
            return nullptr;
        }
        return found;
    }

    std::shared_ptr<platform::LocalSafariWindow> frontWindow(httplib::Response& res) const {
        auto window = safari().frontWindow();
        if (!window) fail(res, 409, "No window is open.");
        return window;
    }

    // Unless the host matches 127.0.0.1 or localhost at this port, and any
    // Origin is this server's own, the request is refused.
    bool isOwnRequest(const httplib::Request& req) const {
        const std::string port = std::to_string(api.port_);
        const std::string host = req.get_header_value("Host");
        if (host != "127.0.0.1:" + port && host != "localhost:" + port) return false;
        if (!req.has_header("Origin")) return true;
        const std::string origin = req.get_header_value("Origin");
        return origin == "http://127.0.0.1:" + port || origin == "http://localhost:" + port;
    }

    void add(httplib::Server& server) {
        server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
            answerUncompressed(req);
            if (isOwnRequest(req)) return httplib::Server::HandlerResponse::Unhandled;
            fail(res, 403, "Only pages served by this server on its own host and port may use it.");
            return httplib::Server::HandlerResponse::Handled;
        });
        server.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
            if (!res.body.empty()) return;
            if (res.status == 404)
                fail(res, 404, "There is no " + req.method + " " + req.path + " in this API.");
            else if (res.status == 400 && !req.has_header("Content-Length"))
                fail(res, 400, "A request with a body must give its Content-Length (0 for none).");
            else
                fail(res, res.status, "The request could not be answered (HTTP " + std::to_string(res.status) + ").");
        });
        server.set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
            std::string what = "unknown error";
            try {
                if (error) std::rethrow_exception(error);
            } catch (const std::exception& exception) {
                what = exception.what();
            } catch (...) {
            }
            fail(res, 500, "The server failed: " + what + ".");
        });

        // The page: resources/web/ at /web/, Debian's Chart.js at /vendor/chart.js/.
        const auto web = platform::resourcesDirectory() / "web";
        server.set_mount_point("/web", web.string());
        server.set_mount_point("/vendor/chart.js", "/usr/share/javascript/chart.js");
        server.set_file_extension_and_mimetype_mapping("mjs", "text/javascript");
        server.Get("/", [web](const httplib::Request&, httplib::Response& res) {
            std::ifstream in(web / "index.html", std::ios::binary);
            std::ostringstream text;
            text << in.rdbuf();
            if (text.str().empty()) return fail(res, 500, "The page is missing from " + web.string() + ".");
            res.set_header("Cache-Control", "no-store");
            res.set_content(text.str(), "text/html; charset=utf-8");
        });
        server.Get("/api/page", [this](const httplib::Request&, httplib::Response& res) {
            reply(res, pageJSON(api.parts_.contentPort));
        });

        addSafariRoutes(server);
        addPageRoutes(server);
        addPopoverRoutes(server);
        addEventRoutes(server);
    }

    // --- Windows, tabs, toolbar -----------------------------------------------------------
    void addSafariRoutes(httplib::Server& server) {
        server.Get("/api/windows", [this](const httplib::Request&, httplib::Response& res) {
            reply(res, tabsJSON(safari()));
        });
        server.Get("/api/tabs", [this](const httplib::Request&, httplib::Response& res) {
            reply(res, tabsJSON(safari()));
        });
        server.Post("/api/windows", [this](const httplib::Request&, httplib::Response& res) {
            auto window = safari().openWindow();
            settle();
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "id");
                      string(w, window->identifier());
                      w.EndObject();
                  }));
        });
        server.Delete(R"(/api/windows/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
            if (!safari().closeWindow(req.matches[1]))
                return fail(res, 404, "There is no window " + std::string(req.matches[1]) + ".");
            settle();
            ok(res);
        });
        server.Post(R"(/api/windows/([^/]+)/activate)", [this](const httplib::Request& req, httplib::Response& res) {
            if (!safari().activateWindow(req.matches[1]))
                return fail(res, 404, "There is no window " + std::string(req.matches[1]) + ".");
            settle();
            ok(res);
        });

        server.Post("/api/tabs", [this](const httplib::Request& req, httplib::Response& res) {
            auto body = object(req, res);
            if (!body) return;
            std::optional<std::string> url, window;
            if (const Value* v = field(*body, "url")) {
                if (!v->asString()) return fail(res, 400, "\"url\" must be a string.");
                url = v->asString();
            }
            if (const Value* v = field(*body, "window")) {
                if (!v->asString()) return fail(res, 400, "\"window\" must be a string.");
                window = v->asString();
            }
            auto tab = safari().openTab(url, window);
            if (!tab) return fail(res, 404, "There is no window " + window.value_or("") + ".");
            settle();
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "id");
                      string(w, tab->identifier());
                      w.EndObject();
                  }));
        });
        server.Get(R"(/api/tabs/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            const auto& page = found->page();
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "id");
                      string(w, found->identifier());
                      key(w, "url");
                      optionalString(w, page->url());
                      key(w, "reloads");
                      w.Int(page->reloadCount());
                      key(w, "messages");
                      w.StartArray();
                      for (const auto& message : page->messagesReceived()) {
                          w.StartObject();
                          key(w, "name");
                          string(w, message.name);
                          key(w, "userInfo");
                          if (message.userInfo)
                              value(w, Value(*message.userInfo));
                          else
                              w.Null();
                          w.EndObject();
                      }
                      w.EndArray();
                      w.EndObject();
                  }));
        });
        server.Delete(R"(/api/tabs/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
            if (!tab(req, res)) return;
            safari().closeTab(req.matches[1]);
            settle();
            ok(res);
        });
        server.Post(R"(/api/tabs/([^/]+)/activate)", [this](const httplib::Request& req, httplib::Response& res) {
            if (!tab(req, res)) return;
            safari().activateTab(req.matches[1]);
            settle();
            ok(res);
        });
        server.Post(R"(/api/tabs/([^/]+)/navigate)", [this](const httplib::Request& req, httplib::Response& res) {
            if (!tab(req, res)) return;
            auto body = object(req, res);
            if (!body) return;
            auto url = stringField(*body, "url", res);
            if (!url) return;
            safari().navigateTab(req.matches[1], *url);
            settle();
            ok(res);
        });
        server.Post(R"(/api/tabs/([^/]+)/back)", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            if (!safari().goBack(found->identifier())) return fail(res, 409, "The tab has nothing to go back to.");
            settle();
            ok(res);
        });
        server.Post(R"(/api/tabs/([^/]+)/reload)", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            found->page()->reload();
            ok(res);
        });

        // Whether no rule change of the whitelist editor is on its way and the
        // extension manager has no save, reload or retry queued: a script
        // waits on it for a change to be in effect.
        server.Get("/api/extensions", [](const httplib::Request&, httplib::Response& res) {
            const bool idle =
                !ui::WhitelistViewController::hasSavesInFlight() && control::ExtensionManager::shared()->isIdle();
            reply(res, idle ? R"({"idle":true})" : R"({"idle":false})");
        });
        server.Get("/api/toolbar", [this](const httplib::Request&, httplib::Response& res) {
            settle();
            auto window = safari().frontWindow();
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "enabled");
                      w.Bool(window && window->toolbarItem()->isEnabled());
                      key(w, "badge");
                      string(w, window ? window->toolbarItem()->badgeText() : "");
                      w.EndObject();
                  }));
        });
        server.Post("/api/toolbar/click", [this](const httplib::Request&, httplib::Response& res) {
            auto window = frontWindow(res);
            if (!window) return;
            safari().clickToolbarItem(window);
            settle();
            ok(res);
        });
        server.Post("/api/toolbar/validate", [this](const httplib::Request&, httplib::Response& res) {
            auto window = frontWindow(res);
            if (!window) return;
            safari().validateToolbarItem(window);
            settle();
            ok(res);
        });
        server.Post("/api/context-menu", [this](const httplib::Request& req, httplib::Response& res) {
            auto body = object(req, res);
            if (!body) return;
            auto command = stringField(*body, "command", res);
            if (!command) return;
            std::shared_ptr<platform::LocalSafariTab> target;
            if (const Value* v = field(*body, "tab")) {
                if (!v->asString()) return fail(res, 400, "\"tab\" must be a string.");
                target = safari().tab(*v->asString());
                if (!target || target->identifier() != *v->asString())
                    return fail(res, 404, "There is no tab " + *v->asString() + ".");
            } else if (!(target = safari().activeTab())) {
                return fail(res, 409, "No tab is open.");
            }
            safari().selectContextMenuCommand(*command, target->page());
            settle();
            ok(res);
        });
        server.Post("/api/content-blockers/report", [this](const httplib::Request& req, httplib::Response& res) {
            auto body = object(req, res);
            if (!body) return;
            std::string identifier;
            if (const Value* v = field(*body, "identifier")) {
                if (!v->asString()) return fail(res, 400, "\"identifier\" must be a string.");
                identifier = *v->asString();
            } else if (const Value* e = field(*body, "extension")) {
                const auto type = e->asString() ? model::fromRawValue<model::ExtensionType>(*e->asString())
                                                : std::nullopt;
                if (!type) return fail(res, 400, "\"extension\" must name an extension type, such as \"block-ads\".");
                identifier = model::bundleIdentifier(*type);
            } else {
                return fail(res, 400, "Give the content blocker as \"identifier\" or \"extension\".");
            }
            auto tabID = stringField(*body, "tab", res);
            if (!tabID) return;
            auto target = safari().tab(*tabID);
            if (!target || target->identifier() != *tabID) return fail(res, 404, "There is no tab " + *tabID + ".");
            const Value* urls = field(*body, "urls");
            const auto array = urls ? urls->asArray() : std::nullopt;
            if (!array) return fail(res, 400, "\"urls\" must be a list of strings.");
            std::vector<std::string> list;
            for (const auto& url : *array) {
                if (!url.asString()) return fail(res, 400, "\"urls\" must be a list of strings.");
                list.push_back(*url.asString());
            }
            safari().reportBlockedResources(identifier, list, target->page());
            settle();
            ok(res);
        });
    }

    // --- Page messages and loads -----------------------------------------------------------
    void addPageRoutes(httplib::Server& server) {
        server.Post(R"(/api/tabs/([^/]+)/messages)", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            auto body = object(req, res);
            if (!body) return;
            auto name = stringField(*body, "name", res);
            if (!name) return;
            std::optional<Dictionary> userInfo;
            if (const Value* v = field(*body, "userInfo")) {
                if (!v->isDictionary()) return fail(res, 400, "\"userInfo\" must be a JSON object.");
                userInfo = *v->asDictionary();
            }
            safari().sendMessageFromPage(found->page(), *name, userInfo);
            settle();
            ok(res);
        });

        server.Post(R"(/api/tabs/([^/]+)/loads)", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            auto body = object(req, res);
            if (!body) return;
            auto url = stringField(*body, "url", res);
            if (!url) return;
            auto typeName = stringField(*body, "resourceType", res);
            if (!typeName) return;
            const auto type = platform::loadResourceTypeFromName(*typeName);
            if (!type)
                return fail(res, 400, "\"resourceType\" must be one of document, image, style-sheet, script, font, "
                                      "raw, svg-document, media, popup, ping, fetch, websocket, other.");
            const auto pageURL = found->page()->url();
            if (!pageURL) return fail(res, 409, "Tab " + found->identifier() + " shows no page.");
            const EnabledContentBlockers blockers = enabledContentBlockers();
            const platform::LoadEffects effects =
                platform::evaluateLoad(blockers.lists, {*url, *pageURL == *url ? "" : *pageURL, *type});
            // Safari tells the extension what each content blocker blocked.
            for (const auto& identifier : effects.blockedBy)
                safari().reportBlockedResources(identifier, {*url}, found->page());
            if (!effects.blockedBy.empty()) settle();
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "blocked");
                      w.Bool(effects.blocked);
                      key(w, "extensions");
                      strings(w, blockers.extensionNames(effects.blockedBy));
                      key(w, "blockCookies");
                      w.Bool(effects.blockCookies);
                      key(w, "url");
                      string(w, effects.url);
                      key(w, "selectors");
                      strings(w, effects.selectors);
                      key(w, "stylesheetApplied");
                      w.Bool(!effects.evaluated || !effects.stylesheetAppliedFor.empty());
                      w.EndObject();
                  }));
        });

        server.Get(R"(/api/tabs/([^/]+)/stylesheet)", [this](const httplib::Request& req, httplib::Response& res) {
            auto found = tab(req, res);
            if (!found) return;
            const auto pageURL = found->page()->url();
            const std::vector<std::string> selectors =
                pageURL ? pageStyleSheet(enabledContentBlockers(), *pageURL) : std::vector<std::string>{};
            reply(res, json([&](Writer& w) {
                      w.StartObject();
                      key(w, "selectors");
                      strings(w, selectors);
                      w.EndObject();
                  }));
        });
    }

    // --- The popover -----------------------------------------------------------------------
    SafariExtensionViewController& popover() const { return *api.parts_.popover; }

    void addPopoverRoutes(httplib::Server& server) {
        server.Post("/api/popover/show", [this](const httplib::Request&, httplib::Response& res) {
            auto window = frontWindow(res);
            if (!window) return;
            safari().showPopover(window);
            settle();
            ok(res);
        });
        server.Post("/api/popover/close", [this](const httplib::Request&, httplib::Response& res) {
            auto window = frontWindow(res);
            if (!window) return;
            safari().closePopover(window);
            settle();
            ok(res);
        });
        server.Get("/api/popover", [this](const httplib::Request&, httplib::Response& res) {
            settle();
            const bool shown = safari().isPopoverShown();
            reply(res, onMain([&] { return renderPopover(popover(), shown); }));
        });
        server.Post(R"(/api/popover/rows/([^/]+)/click)", [this](const httplib::Request& req, httplib::Response& res) {
            const auto cell = model::fromRawValue<SafariExtensionViewController::CellID>(std::string(req.matches[1]));
            if (!cell) return fail(res, 404, "The popover has no row " + std::string(req.matches[1]) + ".");
            outcome(res, onMain([&] { return popover().clickRow(*cell); }));
        });
        server.Post(R"(/api/popover/rows/([^/]+)/switch)", [this](const httplib::Request& req, httplib::Response& res) {
            const auto cell = model::fromRawValue<SafariExtensionViewController::CellID>(std::string(req.matches[1]));
            if (!cell) return fail(res, 404, "The popover has no row " + std::string(req.matches[1]) + ".");
            auto body = object(req, res);
            if (!body) return;
            auto on = boolField(*body, "on", res);
            if (!on) return;
            auto result = onMain([&] { return popover().switchRow(*cell, *on); });
            if (!result) return fail(res, 400, result.error());
            ok(res);
        });
        server.Post(R"(/api/popover/counters/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
            const auto period = model::fromRawValue<runtime::HistoryPeriodType>(std::string(req.matches[1]));
            if (!period)
                return fail(res, 404, "There is no counter " + std::string(req.matches[1]) +
                                          "; the counters are today, thisWeek and allTime.");
            outcome(res, onMain([&] { return popover().counterDidTap(*period); }));
        });
        server.Post("/api/popover/stats-button", [this](const httplib::Request&, httplib::Response& res) {
            outcome(res, onMain([&] { return popover().showBlockingReportButtonDidTap(); }));
        });
        server.Post("/api/popover/alert/ok", [this](const httplib::Request&, httplib::Response& res) {
            outcome(res, onMain([&] { return popover().alertOK(); }));
        });
        server.Post("/api/popover/alert/cancel", [this](const httplib::Request&, httplib::Response& res) {
            outcome(res, onMain([&] { return popover().alertCancel(); }));
        });
        server.Post(R"(/api/popover/child/([^/]+))", [this](const httplib::Request& req, httplib::Response& res) {
            auto body = object(req, res);
            if (!body) return;
            const std::string action = req.matches[1];
            onMain([&] { childAction(action, *body, res); });
        });
    }

    // An action of the presented child view. Main queue.
    void childAction(const std::string& action, const Dictionary& body, httplib::Response& res) {
        const auto child = popover().presentedChild();
        if (!child) return fail(res, 409, "No child view is presented.");
        const std::string kind(SafariExtensionViewController::kindName(*child));
        auto unknown = [&] { fail(res, 404, "The " + kind + " view has no action " + action + "."); };
        std::visit(
            [&](const auto& view) {
                using View = std::decay_t<decltype(*view)>;
                if constexpr (std::is_same_v<View, ui::WhitelistViewController>) {
                    if (action == "dismiss") return view->dismissButtonDidPress(), ok(res);
                    if (action != "turnOffBlocking" && action != "disableAll" && action != "contentBlocker")
                        return unknown();
                    auto on = boolField(body, "on", res);
                    if (!on) return;
                    if (action == "turnOffBlocking") return view->didChangeTurnOffBlockingSwitch(*on), ok(res);
                    if (action == "disableAll") return view->didChangeDisableAllSwitch(*on), ok(res);
                    auto extension = stringField(body, "extension", res);
                    if (!extension) return;
                    const auto type = model::fromRawValue<model::ExtensionType>(*extension);
                    if (!type)
                        return fail(res, 400, "\"extension\" must name an extension type, such as \"block-ads\".");
                    view->didChangeContentBlockerSwitch(*on, static_cast<int>(*type));
                    ok(res);
                } else if constexpr (std::is_same_v<View, ui::BlockingStatsViewController>) {
                    if (action == "dismiss") return popover().dismissBlockingStats(), ok(res);
                    if (action != "period") return unknown();
                    auto name = stringField(body, "period", res);
                    if (!name) return;
                    const auto period = model::fromRawValue<runtime::HistoryPeriodType>(*name);
                    if (!period) return fail(res, 400, "\"period\" must be today, thisWeek or allTime.");
                    const auto picker = view->picker();
                    for (std::size_t i = 0; i < picker.periods.size(); ++i)
                        if (picker.periods[i] == *period) view->pickerDidChange(static_cast<int>(i));
                    ok(res);
                } else if constexpr (std::is_same_v<View, ui::BlockedHistoryViewController>) {
                    if (action == "dismiss") return popover().dismissBlockedHistory(), ok(res);
                    if (action != "badge") return unknown();
                    auto on = boolField(body, "on", res);
                    if (!on) return;
                    view->badgeSwitchDidChange(*on);
                    ok(res);
                } else if constexpr (std::is_same_v<View, ui::ReportSiteViewController>) {
                    if (action == "send") return view->send(), ok(res);
                    if (action == "dismiss") return view->dismiss(), ok(res);
                    if (action == "comment") {
                        auto comment = stringField(body, "comment", res);
                        if (!comment) return;
                        return view->setComment(*comment), ok(res);
                    }
                    if (action != "type") return unknown();
                    auto name = stringField(body, "type", res);
                    if (!name) return;
                    const auto type = model::fromRawValue<ui::ReportType>(*name);
                    if (!type)
                        return fail(res, 400, "\"type\" must be brokenSite, somethingNotBlocked, emptySpace or "
                                              "otherProblem.");
                    view->chooseReportType(*type);
                    ok(res);
                } else {
                    unknown();
                }
            },
            *child);
    }

    // --- Server-sent events ----------------------------------------------------------------
    void addEventRoutes(httplib::Server& server) {
        server.Get("/api/events", [this](const httplib::Request&, httplib::Response& res) {
            auto subscription = api.parts_.events->subscribe();
            if (!subscription) return fail(res, 503, "Too many event streams are open.");
            res.set_header("Cache-Control", "no-store");
            res.set_chunked_content_provider(
                "text/event-stream", [subscription, first = true](std::size_t, httplib::DataSink& sink) mutable {
                    if (first) {
                        first = false;
                        const std::string hello = formatServerEvent({"hello", "{}"});
                        return sink.write(hello.data(), hello.size());
                    }
                    if (!sink.is_writable()) return false;
                    auto events = subscription->next(15s);
                    if (!events) return false;  // the server stops
                    std::string text = events->empty() ? std::string(": keep-alive\n\n") : std::string();
                    for (const auto& event : *events) text += formatServerEvent(event);
                    return sink.write(text.data(), text.size());
                });
        });
    }
};

ServeApi::ServeApi(Parts parts) : parts_(std::move(parts)), server_(std::make_unique<httplib::Server>()) {
    server_->new_task_queue = [] { return new httplib::ThreadPool(threadCount); };
    // Idle kept-alive connections give their thread back soon.
    server_->set_keep_alive_timeout(2);
    server_->set_payload_max_length(1 << 20);
}

ServeApi::~ServeApi() { stop(); }

std::expected<std::uint16_t, std::string> ServeApi::bind(std::uint16_t port) {
    int bound = port;
    if (port == 0) {
        bound = server_->bind_to_any_port("127.0.0.1");
        if (bound <= 0) return std::unexpected("could not bind 127.0.0.1 to a free port");
    } else if (!server_->bind_to_port("127.0.0.1", port)) {
        return std::unexpected("could not listen on 127.0.0.1:" + std::to_string(port) +
                               " (is the port in use?)");
    }
    port_ = static_cast<std::uint16_t>(bound);
    addRoutes();
    return port_;
}

void ServeApi::addRoutes() {
    auto routes = std::make_shared<Routes>(Routes{*this});
    routes->add(*server_);
    // The handlers refer to the routes object; it lives as long as the server.
    server_->set_logger([routes](const httplib::Request&, const httplib::Response&) {});
}

void ServeApi::start() {
    auto ended = std::make_shared<std::atomic<bool>>(false);
    thread_ = std::thread([this, ended] {
        server_->listen_after_bind();
        ended->store(true);
    });
    // httplib's stop() does nothing until the listening loop has begun.
    while (!server_->is_running() && !ended->load()) std::this_thread::sleep_for(1ms);
}

void ServeApi::stop() {
    if (parts_.events) parts_.events->close();
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
}

}  // namespace tamsel::host
