#!/usr/bin/env bash
# End-to-end checks of `tamsel report-site`: problem reports reach the public
# database of the report container of a loopback cloud server, where the
# administrator reads them back field by field; without an account, or with
# a server that answers badly, the command says why and stores nothing.
#
#   bash tests/host/report_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init report "$@"

SERVER_PID=""
harness_cleanup() { [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null; }

DB="sqlite:$WORK/cloud.sqlite"
server() { "$TAMSEL" --home "$WORK/server-home" cloud-server "$@" --database "$DB" 2>/dev/null; }
ADMIN=$(server add-user root --admin)
ALICE=$(server add-user alice)
"$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" >"$WORK/server.out" 2>&1 &
SERVER_PID=$!
URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
[ -n "$URL" ] || { echo "the cloud server did not start: $(cat "$WORK/server.out")"; exit 1; }
REPORTS="$URL/database/1/iCloud.app.tamsel.Tamsel.Report/development/public"

# The Report records the administrator reads, as "name type url comment
# device appVersion osVersion" lines (comment "-" when absent), oldest first.
stored_reports() {
    curl -s -H "Authorization: Bearer $ADMIN" -H 'Content-Type: application/json' \
        -d '{"query":{"recordType":"Report"}}' "$REPORTS/records/query" |
        node -e '
            let text = ""; process.stdin.on("data", (d) => text += d).on("end", () => {
                for (const r of JSON.parse(text).records) {
                    const f = r.fields, v = (k) => f[k] ? f[k].value : "-";
                    console.log([r.recordName, v("type"), v("url"), v("comment"), v("device") === "" ? "(none)" : v("device"),
                                 v("appVersion"), v("osVersion")].join(" | "));
                }
            });'
}
report_count() { stored_reports | grep -c . ; }

begin "without an account nothing is sent, and the command says how to sign in"
tamsel report-site https://news.example/ --type brokenSite
expect_status 1
expect_stderr_contains "no cloud account; sign in with tamsel cloud login first"
[ "$(report_count)" -eq 0 ] || problem "a report was stored"
finish

begin "bad usage: an unknown type, a missing type, an address that is not absolute"
tamsel report-site https://news.example/ --type brokenPage
expect_status 2
expect_stderr_contains "expected brokenSite, somethingNotBlocked, emptySpace or otherProblem"
tamsel report-site https://news.example/
expect_status 2
tamsel report-site news.example --type brokenSite
expect_status 2
expect_stderr_contains "expected an absolute URL"
finish

"$TAMSEL" --home "$DATA" cloud login --server "$URL" --user alice --token "$ALICE" >/dev/null

begin "a report with a comment is stored with every field; the log says it was posted"
tamsel -v report-site "https://news.example/world?id=7" --type somethingNotBlocked --comment "the banner on top"
expect_status 0
expect_stdout_contains 'Sent report: Report(type: somethingNotBlocked, url: https://news.example/world?id=7, comment: "the banner on top"'
expect_stderr_contains "Posting report Report(type: somethingNotBlocked"
expect_stderr_contains "Successfuly posted report."
stored_reports >"$WORK/reports"
[ "$(wc -l <"$WORK/reports")" -eq 1 ] || problem "stored: $(cat "$WORK/reports")"
IFS='|' read -r name type url comment device appVersion osVersion <"$WORK/reports"
[[ "$name" =~ ^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\ $ ]] || problem "record name '$name' is no UUID"
[ "$type" = " somethingNotBlocked " ] || problem "type '$type'"
[ "$url" = " https://news.example/world?id=7 " ] || problem "url '$url'"
[ "$comment" = " the banner on top " ] || problem "comment '$comment'"
[ "$device" != " - " ] || problem "no device field"
version='^ [^ ]+ [(][^ ]+[)] $'
[[ "$appVersion" =~ $version ]] || problem "appVersion '$appVersion' is not 'VERSION (BUILD)'"
[[ "$osVersion" =~ ^\ macOS\ .+$ ]] || problem "osVersion '$osVersion'"
finish

begin "an empty comment stores no comment; two sends are two records"
tamsel report-site https://shop.example/ --type emptySpace --comment ""
expect_status 0
tamsel report-site https://shop.example/ --type emptySpace
expect_status 0
stored_reports >"$WORK/reports"
[ "$(wc -l <"$WORK/reports")" -eq 3 ] || problem "stored: $(cat "$WORK/reports")"
[ "$(grep -c ' | emptySpace | https://shop.example/ | - | ' "$WORK/reports")" -eq 2 ] ||
    problem "the empty comment was stored: $(cat "$WORK/reports")"
[ "$(cut -d'|' -f1 "$WORK/reports" | sort -u | wc -l)" -eq 3 ] || problem "record names repeat"
finish

begin "a server that refuses the save: the command fails with the server's reason"
curl -s -o /dev/null -H "Authorization: Bearer $ADMIN" \
    -d '{"endpoint":"records/modify","database":"public","status":503,"serverErrorCode":"SERVICE_UNAVAILABLE","reason":"down for maintenance"}' \
    "$URL/admin/faults"
tamsel -v report-site https://news.example/ --type otherProblem
expect_status 1
expect_stderr_contains "tamsel: report-site: CKError 6 (serviceUnavailable): down for maintenance"
expect_stderr_contains "Error reporting: CKError 6 (serviceUnavailable)"
[ "$(report_count)" -eq 3 ] || problem "a refused report was stored"
finish

begin "a server that answers with something other than the protocol: a clear failure"
curl -s -o /dev/null -H "Authorization: Bearer $ADMIN" \
    -d '{"endpoint":"records/modify","database":"public","status":500}' "$URL/admin/faults"
tamsel report-site https://news.example/ --type otherProblem
expect_status 1
expect_stderr_contains "tamsel: report-site: CKError"
[ "$(wc -l <"$WORK/err")" -eq 1 ] || problem "more than one line on stderr"
finish

begin "a token the server no longer knows: not authenticated"
server revoke-token alice >/dev/null
tamsel report-site https://news.example/ --type brokenSite
expect_status 1
expect_stderr_contains "(notAuthenticated)"
finish

begin "no server at the account's address: a network failure, not a hang"
kill "$SERVER_PID"; wait "$SERVER_PID" 2>/dev/null; SERVER_PID=""
tamsel report-site https://news.example/ --type brokenSite
expect_status 1
expect_stderr_contains "tamsel: report-site: CKError"
finish

harness_summary
