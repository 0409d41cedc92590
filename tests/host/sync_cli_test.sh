#!/usr/bin/env bash
# End-to-end checks of `tamsel sync` and `tamsel sync status`: two data roots
# signed in as one user to a loopback cloud server, rules changed through the
# existing commands on one and arriving on the other.
#
#   bash tests/host/sync_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init sync "$@"

SERVER_PID=""
SERVE_PID=""
harness_cleanup() {
    [ -n "$SERVE_PID" ] && kill "$SERVE_PID" 2>/dev/null && wait "$SERVE_PID" 2>/dev/null
    [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null
}


DB="sqlite:$WORK/cloud.sqlite"
HOME_A=$WORK/a
HOME_B=$WORK/b
FILTERS_B="$HOME_B/group/Library/Application Support/Filters"

# on A|B ARGS...: runs the program on that machine's data root.
on() {
    local machine=$1
    shift
    local home=$HOME_A
    [ "$machine" = B ] && home=$HOME_B
    "$TAMSEL" --home "$home" "$@" >"$WORK/out" 2>"$WORK/err"
    status=$?
}

"$TAMSEL" --home "$WORK/server-home" cloud-server add-user alice --database "$DB" >"$WORK/token" 2>/dev/null
ALICE=$(cat "$WORK/token")
"$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" >"$WORK/server.out" 2>"$WORK/server.err" &
SERVER_PID=$!
URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
[ -n "$URL" ] || { echo "no cloud server: $(cat "$WORK/server.err")"; exit 1; }

for home in "$HOME_A" "$HOME_B"; do
    mkdir -p "$home/group/Library/Application Support/Filters"
    cp "$SAMPLES"/*.json "$home/group/Library/Application Support/Filters/"
done
CUSTOM_ID=7B6A5C4D-3E2F-4A1B-9C8D-7E6F5A4B3C2D

begin "without an account sync fails and status says No account"
on A sync
expect_status 1
expect_stderr_contains "sync: no account"
on A sync status --json
expect_status 0
expect_stdout_contains '"accountStatus":"No account"'
expect_stdout_contains '"zoneSaved":false'
finish

begin "a change made before signing in waits; the first sync uploads the custom packages"
on A whitelist early.example.com
on B whitelist example.org
expect_status 0
on B sync status --json
expect_stdout_contains '"addedRules":1'
on A cloud login --server "$URL" --user alice --token "$ALICE"
on B cloud login --server "$URL" --user alice --token "$ALICE"
on A sync --json
expect_status 0
expect_stdout_contains '"pending":0'
expect_stdout_contains '"accountStatus":"Available"'
grep -q '"saved":[1-9]' "$WORK/out" || problem "nothing was pushed: $(cat "$WORK/out")"
on A sync status
expect_status 0
expect_stdout_contains "Pending local changes: 0"
expect_stdout_contains "Zone saved: yes"
expect_stdout_contains "Account status: Available"
grep -q "^Server change token: none$" "$WORK/out" && problem "no server change token was kept"
grep -q "^Subscription: none$" "$WORK/out" && problem "no subscription was kept"
finish

begin "B's sync pushes its waiting whitelist rule and fetches A's"
on B sync
expect_status 0
expect_stdout_contains "pending: 0 local changes"
grep -q "^fetched: .* [1-9][0-9]* rules*," "$WORK/out" || problem "no rule was fetched: $(cat "$WORK/out")"
on B site early.example.com --json
grep -q '"whitelisted":true' "$WORK/out" || problem "B does not whitelist A's site: $(cat "$WORK/out")"
on A sync
on A site example.org --json
grep -q '"whitelisted":true' "$WORK/out" || problem "A does not whitelist B's site: $(cat "$WORK/out")"
finish

begin "a whitelisting on A reaches B through the next syncs"
on A whitelist news.example.com
expect_status 0
on A sync status --json
expect_stdout_contains '"addedRules":1'
on A sync
expect_status 0
on B sync --json
expect_status 0
on B site news.example.com --json
grep -q '"whitelisted":true' "$WORK/out" || problem "B does not whitelist the site: $(cat "$WORK/out")"
finish

begin "an imported package travels too"
on A export "$CUSTOM_ID" --to "$WORK/mine.tmsl"
sed "s/$CUSTOM_ID/shared-list/; s/My Reading List Rules/Shared List/" "$WORK/mine.tmsl" >"$WORK/shared.tmsl"
on A import "$WORK/shared.tmsl"
expect_status 0
on A sync
expect_status 0
on B sync
expect_status 0
grep -qF '"shared-list"' "$FILTERS_B/block-custom.json" || problem "B lacks the imported package"
finish

begin "tamsel serve pushes on start and fetches what another machine pushes, by itself"
on B whitelist waiting.example.com
"$TAMSEL" --home "$HOME_B" serve --listen 127.0.0.1:0 >"$WORK/serve.out" 2>"$WORK/serve.err" &
SERVE_PID=$!
eventually grep -q '^listening on ' "$WORK/serve.out" || problem "serve did not start: $(cat "$WORK/serve.err")"
sync_status_clear() { on A sync >/dev/null; on A site waiting.example.com --json; grep -q '"whitelisted":true' "$WORK/out"; }
eventually sync_status_clear || problem "the rule waiting on B did not reach A"
on A whitelist pushed.example.com
on A sync
expect_status 0
eventually grep -q "pushed.example.com" "$FILTERS_B/block-configurable.json" ||
    problem "B's serve did not fetch A's change"
grep -q "♻️ iCloud Sync: Fetching from remote changes..." "$HOME_B/logs/tamsel.log" || problem "no fetch in B's log"
kill "$SERVE_PID"
wait "$SERVE_PID"
SERVE_PID=""
finish

begin "cloudStuffDisabled: sync does nothing"
on A defaults write --store shared cloudStuffDisabled -bool true
on A whitelist disabled.example.com
on A sync
expect_status 0
expect_stdout "Sync is disabled (cloudStuffDisabled)"
on A sync status --json
expect_stdout_contains '"disabled":true'
expect_stdout_contains '"addedRules":0'
finish

harness_summary
