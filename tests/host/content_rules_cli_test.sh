#!/usr/bin/env bash
# End-to-end checks of `tamsel content-rules evaluate|stylesheet` on a rule
# list written here, and of `tamsel safari load` on the sample packages
# compiled into the substitute Safari.
#
#   bash tests/host/content_rules_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init content_rules "$@"

cat >"$WORK/rules.json" <<'JSON'
[{"trigger":{"url-filter":".*"},"action":{"type":"css-display-none","selector":".ad"}},
 {"trigger":{"url-filter":"^[^:]+://+([^:/]+\\.)?ads\\.example[:/]","load-type":["third-party"]},"action":{"type":"block"}},
 {"trigger":{"url-filter":".*","if-domain":["*news.example"]},"action":{"type":"css-display-none","selector":"#promo"}},
 {"trigger":{"url-filter":"track","url-filter-is-case-sensitive":true},"action":{"type":"block-cookies"}},
 {"trigger":{"url-filter":"^http://"},"action":{"type":"make-https"}},
 {"trigger":{"url-filter":".*","if-domain":["safe.example"]},"action":{"type":"ignore-previous-rules"}}]
JSON

# ---------------------------------------------------------------- evaluate

fresh_home
begin "evaluate writes one line per request, in order, and a bad line does not stop the rest"
printf '%s\n' \
    '{"url":"https://ADS.example/x.js","mainDocumentURL":"https://www.news.example/","resourceType":"script"}' \
    'not json' \
    '{"url":"http://cdn.other/track.png","mainDocumentURL":"https://www.news.example/","resourceType":"image"}' \
    '{"url":"http://cdn.other:8080/TRACK","mainDocumentURL":"https://x.example/","resourceType":"raw"}' \
    '{"url":"https://ads.example/x.js","mainDocumentURL":"https://safe.example/","resourceType":"script"}' \
    '{"url":"https://a.example/","resourceType":"xhr"}' \
    '{"url":"data:image/png;base64,AA","mainDocumentURL":"https://x.example/","resourceType":"image"}' \
    >"$WORK/requests"
"$TAMSEL" --home "$DATA" content-rules evaluate "$WORK/rules.json" <"$WORK/requests" >"$WORK/out" 2>"$WORK/err"
status=$?
expect_status 0
expect_stdout_lines 7
expect() { [ "$(sed -n "$1p" "$WORK/out")" = "$2" ] || problem "line $1: $(sed -n "$1p" "$WORK/out"), expected $2"; }
expect 1 '{"blocked":true,"blockCookies":false,"url":"https://ads.example/x.js","selectors":["#promo"],"stylesheetApplied":true}'
sed -n 2p "$WORK/out" | grep -q '^{"error":"line 2: ' || problem "line 2 is not an error"
expect 3 '{"blocked":false,"blockCookies":true,"url":"https://cdn.other/track.png","selectors":["#promo"],"stylesheetApplied":true}'
expect 4 '{"blocked":false,"blockCookies":false,"url":"http://cdn.other:8080/TRACK","selectors":[],"stylesheetApplied":true}'
expect 5 '{"blocked":false,"blockCookies":false,"url":"https://ads.example/x.js","selectors":[],"stylesheetApplied":false}'
expect 6 '{"error":"line 6: unknown resourceType \"xhr\""}'
expect 7 '{"blocked":false,"blockCookies":false,"url":"data:image/png;base64,AA","selectors":[],"stylesheetApplied":true}'
finish

begin "stylesheet prints the global style sheet"
tamsel content-rules stylesheet "$WORK/rules.json"
expect_status 0
expect_stdout ".ad"
finish

begin "both refuse a list WebKit refuses, with its error text"
echo '[{"trigger":{"url-filter":"a|b"},"action":{"type":"block"}}]' >"$WORK/bad.json"
tamsel content-rules stylesheet "$WORK/bad.json"
expect_status 1
expect_stderr_contains "Invalid or unsupported regular expression."
"$TAMSEL" --home "$DATA" content-rules evaluate "$WORK/bad.json" </dev/null >"$WORK/out" 2>"$WORK/err"
status=$?
expect_status 1
expect_stdout_empty
expect_stderr_contains "Invalid or unsupported regular expression."
tamsel content-rules evaluate "$WORK/missing.json"
expect_status 1
finish

# ---------------------------------------------------------------- safari load

fresh_home
begin "safari load blocks through the reloaded extensions and records what was blocked"
tamsel compile
expect_status 0
tamsel --json safari load https://www.cnn.com/story --resource https://ad.doubleclick.net/x.js:script \
    --resource https://cdn.cnn.com/logo.png:image
expect_status 0
expect_stdout_contains '{"url":"https://ad.doubleclick.net/x.js","type":"script","blocked":true,"extensions":["block-ads"]'
expect_stdout_contains '{"url":"https://cdn.cnn.com/logo.png","type":"image","blocked":false,"extensions":[]'
expect_stdout_contains '".sponsored-tile, .native-ad"'
tamsel history https://www.cnn.com/story
expect_stdout_contains "https://ad.doubleclick.net/x.js"
expect_stdout_lacks "logo.png"
finish

begin "a whitelisted page blocks nothing and drops the global style sheet"
tamsel safari load https://github.com/x --resource https://ad.doubleclick.net/x.js:script
expect_status 0
expect_stdout_contains "loaded https://ad.doubleclick.net/x.js (script)"
expect_stdout_lacks ".ad-banner"
finish

begin "while blocking is paused the extensions serve an empty list"
tamsel pause
expect_status 0
tamsel safari load https://www.cnn.com/other --resource https://ad.doubleclick.net/x.js:script
expect_stdout_contains "loaded https://ad.doubleclick.net/x.js (script)"
expect_stdout_contains "style sheet: 0 selectors"
tamsel resume
tamsel safari load https://www.cnn.com/other --resource https://ad.doubleclick.net/x.js:script
expect_stdout_contains "blocked https://ad.doubleclick.net/x.js (script) by block-ads"
finish

begin "safari load refuses a resource without a known type"
tamsel safari load https://www.cnn.com/ --resource https://x.example/a.js:scripts
expect_status 2
finish

harness_summary
