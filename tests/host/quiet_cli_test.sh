#!/usr/bin/env bash
# End-to-end check that the tamsel program keeps quiet: every command, run
# without -v on a fresh data root (nothing set up, as on a new machine),
# succeeds and writes nothing on standard error; the product's log lines are
# in the data root's log file instead. Also: the first use of a data root
# happens once even when several programs start on it at the same time.
#
#   bash tests/host/quiet_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init quiet "$@"

SERVER_PID=""
harness_cleanup() {
    if [ -n "$SERVER_PID" ]; then
        kill "$SERVER_PID" 2>/dev/null
        wait "$SERVER_PID" 2>/dev/null
    fi
}

# quietly ARGS...: runs tamsel ARGS... on a fresh data root and expects
# success with an empty standard error.
quietly() {
    rm -rf "$DATA"
    begin "quiet on a fresh data root: tamsel $*"
    tamsel "$@"
    expect_status 0
    expect_stderr_empty
    finish
}

printf '[{"id":"my-list","name":"My List","rules":[{"id":"R1","name":"r","content":{"trigger":{"url-filter":"tracker\\\\.example"},"action":{"type":"block"}}}]}]' \
    >"$WORK/shared.tmsl"

quietly --version
quietly --help
quietly rules check "$SAMPLES/block-ads.json"
quietly rules print "$SAMPLES/block-custom.json"
quietly packages
quietly --json packages
quietly enable block-ads
quietly disable block-ads
quietly export block-german --to "$WORK/exported.tmsl"
quietly import "$WORK/shared.tmsl"
quietly compile
quietly compile block-ads
quietly reload
quietly extensions
quietly safari set-state block-adult disabled
quietly safari fail-next block-ads 3 1
quietly whitelist example.com
quietly whitelist example.com --only block-ads
quietly unwhitelist example.com
quietly https example.com
quietly unhttps example.com
quietly pause
quietly resume
quietly site example.com
quietly --json site example.com
quietly report-blocked --page https://news.example/ --extension block-ads https://ads.example/a.js
quietly stats
quietly stats --period thisWeek --json
quietly defaults write someKey -string value
quietly defaults read
begin "quiet: defaults delete of a key that is there"
"$TAMSEL" --home "$DATA" defaults write someKey -string value
tamsel defaults delete someKey
expect_status 0
expect_stderr_empty
finish

# history of a page with records, on one data root
rm -rf "$DATA"
begin "quiet: history of a page with records"
tamsel report-blocked --page https://news.example/ --extension block-ads https://ads.example/a.js
tamsel history https://news.example/
expect_status 0
expect_stderr_empty
expect_stdout_contains "https://ads.example/a.js"
finish

# The filter server and an update from it.
rm -rf "$DATA"
mkdir -p "$WORK/published"
cp "$SAMPLES"/block-*.json "$WORK/published/"
rm "$WORK/published/block-custom.json"
"$TAMSEL" --home "$WORK/server-home" filter-server --root "$WORK/published" >"$WORK/server.out" 2>"$WORK/server.err" &
SERVER_PID=$!
URL=""
for _ in $(seq 1 300); do
    URL=$(grep -m 1 -E '^http://127\.0\.0\.1:[0-9]+$' "$WORK/server.out")
    [ -n "$URL" ] && break
    sleep 0.1
done
begin "quiet: update from a filter server on a fresh data root"
tamsel update --server "$URL"
expect_status 0
expect_stderr_empty
expect_stdout_line "result: success"
finish
begin "quiet: with the server configured, a missing filter file is fetched without a word"
"$TAMSEL" --home "$DATA" defaults write FilterServerBaseURL -string "$URL"
rm "$FILTERS/block-trackers.json"
tamsel packages
expect_status 0
expect_stderr_empty
[ -s "$FILTERS/block-trackers.json" ] || problem "block-trackers.json was not fetched"
finish
kill "$SERVER_PID" 2>/dev/null
wait "$SERVER_PID" 2>/dev/null
SERVER_PID=""
begin "quiet: the filter server itself"
[ ! -s "$WORK/server.err" ] || problem "the filter server wrote on stderr: $(head -3 "$WORK/server.err")"
finish

# ---------------------------------------------------------------- where the lines went

rm -rf "$DATA"
begin "the log lines are in the data root's log file, and with -v on stderr too"
tamsel compile
expect_stderr_empty
expect_log_contains "[info] [FirstUse] First use of $DATA"
expect_log_contains "✅ Reloaded extension: Ads"
! grep -qF "Reloaded extension" "$WORK/out" || problem "a trace line reached standard output"
tamsel -v compile block-ads
expect_stderr_contains "✅ Reloaded extension: Ads"
expect_stdout_lines 1
finish

begin "a failing command writes one line on stderr"
tamsel whitelist 10.0.0.1
expect_status 1
expect_stderr_lines 1
expect_stderr_contains 'tamsel: invalid domain "10.0.0.1"'
finish

# ---------------------------------------------------------------- first use

rm -rf "$DATA"
begin "a fresh data root gets the shipped lists and the configurable packages as built in, nothing of the user's"
tamsel --json packages
expect_status 0
for file in block-ads block-trackers block-annoyances block-social block-comments block-adult block-international; do
    cmp -s "$SAMPLES/$file.json" "$FILTERS/$file.json" || problem "$file.json is not the shipped one"
done
[ ! -e "$FILTERS/block-custom.json" ] || problem "custom packages were made up"
expect_stdout_contains '{"id":"whitelist","name":"Whitelist","category":"custom","extensionType":"block-custom","rules":0,'
expect_stdout_contains '{"id":"make-https","name":"Make HTTPS-only","category":"custom","extensionType":"block-custom","rules":0,'
[ "$(ls "$SAFARI_JSON" | wc -l)" -eq 8 ] || problem "the first use did not compile eight files"
finish

begin "a filter file of the user's is never replaced"
printf '{"id":"block-ads","name":"Mine","rules":[]}' >"$WORK/mine.json"
rm -rf "$DATA"
mkdir -p "$FILTERS"
cp "$WORK/mine.json" "$FILTERS/block-ads.json"
tamsel packages
expect_status 0
cmp -s "$WORK/mine.json" "$FILTERS/block-ads.json" || problem "the user's block-ads.json was replaced"
finish

rm -rf "$DATA"
begin "without the shipped lists the first use fails with one line, and is tried again next time"
TAMSEL_RESOURCES="$WORK/nowhere" tamsel packages
expect_status 1
expect_stdout_empty
expect_stderr_lines 1
expect_stderr_contains "tamsel: first use: can't read the shipped $WORK/nowhere/packages/block-ads.json"
tamsel packages
expect_status 0
expect_stderr_empty
[ -s "$FILTERS/block-ads.json" ] || problem "the second first use did not install the lists"
finish

rm -rf "$DATA"
begin "programs starting together on a fresh data root do the first use once"
pids=""
for n in 1 2 3 4; do
    "$TAMSEL" --home "$DATA" extensions >"$WORK/together-$n.out" 2>"$WORK/together-$n.err" &
    pids="$pids $!"
done
for pid in $pids; do wait "$pid" || problem "a run failed"; done
for n in 1 2 3 4; do
    [ ! -s "$WORK/together-$n.err" ] || problem "run $n wrote on stderr"
    [ "$(grep -c ', last reload .* ok,' "$WORK/together-$n.out")" -eq 8 ] || problem "run $n did not see eight reloaded files"
done
[ "$(grep -cF "First use of $DATA" "$DATA/$LOG_FILE_NAME")" -eq 1 ] || problem "the first use ran more than once"
finish

harness_summary
