#!/usr/bin/env bash
# End-to-end checks of the page area's server of `tamsel serve`: the demo
# sites through the content blockers (blocked loads fail and reach the
# badge), the injected style sheet and content script, make-HTTPS redirects,
# the offline page, files outside a site, and requests for another host.
set -u
. "$(dirname "$0")/harness/cli_harness.bash"

SERVER_PID=""
harness_cleanup() {
    if [ -n "$SERVER_PID" ]; then
        kill -TERM "$SERVER_PID" 2>/dev/null
        wait "$SERVER_PID" 2>/dev/null
    fi
}
harness_init page_area "$@"
fresh_home

fetch() {  # fetch DEST PATH [curl arguments...]: body in $WORK/out, status in $status
    local dest=$1 path=$2
    shift 2
    status=$(curl -s -o "$WORK/out" -w '%{http_code}' -H "Sec-Fetch-Dest: $dest" "$@" "$CONTENT$path")
    : >"$WORK/err"
}
badge() {
    curl -s -X POST --data '{}' "$BASE/api/toolbar/validate" >/dev/null
    curl -s "$BASE/api/toolbar" | jq -r .badge
}

begin "serve tells the page where the page area is, on another port"
tamsel defaults write userPrefersBadgeToolbarIconKey -bool true
"$TAMSEL" --home "$DATA" serve --listen 127.0.0.1:0 >"$WORK/serve.out" 2>"$WORK/serve.err" &
SERVER_PID=$!
eventually grep -q '^listening on ' "$WORK/serve.out" || problem "no listening line"
BASE=$(sed -n 's/^listening on //p' "$WORK/serve.out")
CONTENT=$(curl -s "$BASE/api/page" | jq -r .contentOrigin)
[[ "$CONTENT" =~ ^http://127\.0\.0\.1:[0-9]+$ ]] || problem "contentOrigin was '$CONTENT'"
[ "$CONTENT" != "$BASE" ] || problem "the page area shares the API's origin"
status=$(curl -s -o /dev/null -w '%{http_code}' -X POST -H "Origin: $CONTENT" --data '{}' "$BASE/api/toolbar/click")
[ "$status" = 403 ] || problem "the page area's origin could use the API (HTTP $status)"
TAB=$(curl -s -X POST --data '{"url": "https://news.example/"}' "$BASE/api/tabs" | jq -r .id)
finish

begin "the news page comes with its hidden elements and the content script, its addresses on this origin"
fetch iframe "/m/$TAB/https/news.example/"
expect_status 200
grep -q '<style id="tamsel-hidden">[^<]*#cookie-banner' "$WORK/out" || problem "no style sheet hiding the cookie banner"
grep -q '<script src="/_tamsel/content.js">' "$WORK/out" || problem "no content script"
grep -q "src=\"/t/$TAB/https/ad.doubleclick.net/ads/banner.svg\"" "$WORK/out" || problem "addresses not rewritten"
grep -q 'src="https://' "$WORK/out" && problem "an address leaves the page area"
finish

begin "answers on loopback are not compressed, whatever the browser accepts"
# A browser accepts brotli, which the HTTP library would spend seconds on for
# a page area that carries a large rule set's style sheet.
for url in "$CONTENT/m/$TAB/https/news.example/" "$BASE/" "$BASE/api/page"; do
    curl -s -o /dev/null -D "$WORK/headers" -H 'Accept-Encoding: br, gzip, deflate' -H 'Sec-Fetch-Dest: iframe' "$url"
    grep -qi '^content-encoding' "$WORK/headers" && problem "$url came compressed: $(grep -i '^content-encoding' "$WORK/headers")"
done
finish

begin "blocked loads fail and count in the badge; allowed ones load, SVG untouched"
fetch image "/t/$TAB/https/ad.doubleclick.net/ads/banner.svg"
expect_status 403
fetch script "/t/$TAB/https/www.google-analytics.com/analytics.js"
expect_status 403
fetch image "/t/$TAB/https/static.news.example/harbour.svg"
expect_status 200
grep -q 'xmlns="http://www.w3.org/2000/svg"' "$WORK/out" || problem "the SVG's namespace was rewritten"
eventually test "$(badge)" = 2 || problem "badge was '$(badge)', expected 2"
finish

begin "make HTTPS: a forced site's page area is redirected and the tab follows"
curl -s -X POST --data '{}' "$BASE/api/popover/show" >/dev/null
curl -s -X POST --data '{"url": "http://shop.example/"}' "$BASE/api/tabs/$TAB/navigate" >/dev/null
curl -s -X POST --data '{"on": true}' "$BASE/api/popover/rows/makeHttps/switch" >/dev/null
eventually sh -c "curl -s '$BASE/api/extensions' | grep -q true"
fetch iframe "/m/$TAB/http/shop.example/"
expect_status 307
[ "$(curl -s -o /dev/null -w '%{redirect_url}' -H 'Sec-Fetch-Dest: iframe' "$CONTENT/m/$TAB/http/shop.example/")" = \
  "$CONTENT/m/$TAB/https/shop.example/" ] || problem "not redirected to the page area over https"
[ "$(curl -s "$BASE/api/tabs/$TAB" | jq -r .url)" = "https://shop.example/" ] || problem "the tab did not follow"
finish

begin "another host shows the offline page and is the tab's page"
fetch iframe "/m/$TAB/https/example.org/news"
expect_status 200
grep -q 'You Are Offline' "$WORK/out" || problem "no offline page"
[ "$(curl -s "$BASE/api/tabs/$TAB" | jq -r .url)" = "https://example.org/news" ] || problem "the tab is not on example.org"
fetch image "/t/$TAB/https/example.org/logo.png"
expect_status 404
finish

begin "back goes through the tab's history; the make-HTTPS redirect replaced its entry"
back() { curl -s -o /dev/null -w '%{http_code}' -X POST --data '{}' "$BASE/api/tabs/$TAB/back"; }
[ "$(curl -s "$BASE/api/tabs" | jq -r '.windows[0].tabs[0].canGoBack')" = true ] || problem "the tab cannot go back"
[ "$(back)" = 200 ] || problem "back was refused"
[ "$(curl -s "$BASE/api/tabs/$TAB" | jq -r .url)" = "https://shop.example/" ] || problem "back did not return to the shop over https"
[ "$(back)" = 200 ] || problem "the second back was refused"
[ "$(curl -s "$BASE/api/tabs/$TAB" | jq -r .url)" = "https://news.example/" ] || problem "back did not return to the news page"
[ "$(back)" = 409 ] || problem "back past the first page was not refused"
[ "$(curl -s "$BASE/api/tabs" | jq -r '.windows[0].tabs[0].canGoBack')" = false ] || problem "the tab still says it can go back"
finish

begin "paths outside a site, unknown tabs and foreign hosts are refused"
fetch image "/t/$TAB/https/news.example/..%2F..%2Fpackages/block-ads.json" --path-as-is
[ "$status" = 404 ] || [ "$status" = 403 ] || problem "escaped the site folder (HTTP $status)"
fetch image "/t/$TAB/https/news.example/../_content.js" --path-as-is
[ "$status" != 200 ] || problem "a dot-dot path was served"
fetch image "/t/t999/https/news.example/"
expect_status 404
fetch image "/t/$TAB/https/news.example/" -H 'Host: evil.example'
expect_status 403
finish

begin "serve stops"
kill -TERM "$SERVER_PID"
wait "$SERVER_PID"
SERVER_PID=""
grep -qx 'stopped' "$WORK/serve.out" || problem "no 'stopped' line"
finish

harness_summary
