#!/usr/bin/env bash
# Kills `tamsel` with SIGKILL at random moments of compile, whitelist, import
# and update, and checks after each kill that every package file and every
# Safari JSON file still decodes, that what a run installs is there whole or
# not at all, and that the next command makes the rebuild the killed run owed.
#
#   bash tests/host/crash_consistency_test.sh <path-to-tamsel> <source-dir>
#
# CRASH_KILLS (default 3) kills per operation; CRASH_RULE_SET, a filters
# folder to start from instead of the sample packages (the benchmark rule
# set: bench_generate_rule_set --home H, then H/group/Library/Application
# Support/Filters); CRASH_SEED seeds the moments.
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init crash "$@"

KILLS=${CRASH_KILLS:-3}
RANDOM=${CRASH_SEED:-$$}
CONFIGURABLE="$FILTERS/block-configurable.json"
CUSTOM="$FILTERS/block-custom.json"
SAFARI_ADS="$SAFARI_JSON/safari-block-ads.json"

start_home() {
    rm -rf "$DATA"
    mkdir -p "$FILTERS"
    cp "${CRASH_RULE_SET:-$SAMPLES}"/*.json "$FILTERS/"
    "$TAMSEL" --home "$DATA" compile >/dev/null 2>&1 || problem "the first compile failed"
}

# Milliseconds one uninterrupted run of the command takes here, at least 20.
measure() {
    local started ended
    started=$(date +%s%N)
    "$TAMSEL" --home "$DATA" "$@" >/dev/null 2>&1
    ended=$(date +%s%N)
    local ms=$(((ended - started) / 1000000))
    [ "$ms" -ge 20 ] || ms=20
    echo "$ms"
}

# Runs the command and kills it after a random part of `duration` ms.
run_and_kill() {
    local duration=$1
    shift
    "$TAMSEL" --home "$DATA" "$@" >/dev/null 2>&1 &
    local pid=$!
    local delay=$((RANDOM % duration))
    sleep "$(printf '%d.%03d' $((delay / 1000)) $((delay % 1000)))"
    kill -9 "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
}

# Every package file decodes (placeholders and defaults do not count as
# decoding) and no Safari JSON file is refused or half written.
expect_files_whole() {
    local file
    for file in "$FILTERS"/*.json; do
        "$TAMSEL" --home "$DATA" rules check "$file" >/dev/null 2>&1 || problem "$(basename "$file") does not decode after kill $1"
    done
    "$TAMSEL" --home "$DATA" extensions >"$WORK/extensions" 2>/dev/null
    ! grep -q 'refused' "$WORK/extensions" || problem "a Safari JSON file is refused after kill $1: $(grep refused "$WORK/extensions" | head -1)"
}

expect_nothing_owed() {
    "$TAMSEL" --home "$DATA" extensions >"$WORK/extensions" 2>/dev/null
    ! grep -q 'owes a rebuild' "$WORK/extensions" || problem "$1: $(grep 'owes a rebuild' "$WORK/extensions" | cut -d, -f1 | tr '\n' ' ')owe a rebuild"
}

# ---------------------------------------------------------------- compile

start_home
begin "compile killed $KILLS times leaves whole files"
duration=$(measure compile)
for kill in $(seq 1 "$KILLS"); do
    run_and_kill "$duration" compile
    expect_files_whole "compile $kill"
done
finish

# ---------------------------------------------------------------- whitelist

start_home
begin "whitelist killed $KILLS times: whole files, and the next command makes the rebuild it owed"
duration=$(measure whitelist measured.example.com)
for kill in $(seq 1 "$KILLS"); do
    domain="killed-$kill.example.com"
    run_and_kill "$duration" whitelist "$domain"
    expect_files_whole "whitelist $kill"
    "$TAMSEL" --home "$DATA" whitelist "$domain" >/dev/null 2>&1 || problem "whitelist $domain failed after the kill"
    grep -qF "\"$domain\"" "$SAFARI_ADS" || problem "block-ads' Safari file lacks $domain after the next command"
    expect_nothing_owed "after whitelist kill $kill"
done
finish

# ---------------------------------------------------------------- import

start_home
cat >"$WORK/shared.json" <<'EOF'
[{"id": "C0FFEE00-0000-4000-8000-000000000001", "name": "Crash test", "rules": [
  {"id": "C0FFEE00-0000-4000-8000-0000000000A1", "name": "one",
   "content": {"trigger": {"url-filter": "crash-one"}, "action": {"type": "block"}}},
  {"id": "C0FFEE00-0000-4000-8000-0000000000A2", "name": "two",
   "content": {"trigger": {"url-filter": "crash-two"}, "action": {"type": "block"}}},
  {"id": "C0FFEE00-0000-4000-8000-0000000000A3", "name": "three",
   "content": {"trigger": {"url-filter": "crash-three"}, "action": {"type": "block"}}}]}]
EOF
begin "import killed $KILLS times: the package is there whole or not at all, and the next import completes it"
cp "$CUSTOM" "$WORK/custom-before.json" 2>/dev/null
duration=$(measure import "$WORK/shared.json")
for kill in $(seq 1 "$KILLS"); do
    if [ -e "$WORK/custom-before.json" ]; then cp "$WORK/custom-before.json" "$CUSTOM"; else rm -f "$CUSTOM"; fi
    "$TAMSEL" --home "$DATA" compile >/dev/null 2>&1
    run_and_kill "$duration" import "$WORK/shared.json"
    expect_files_whole "import $kill"
    rules=$(grep -o 'C0FFEE00-0000-4000-8000-0000000000A' "$CUSTOM" 2>/dev/null | wc -l)
    [ "$rules" -eq 0 ] || [ "$rules" -eq 3 ] || problem "the custom file holds $rules of the 3 imported rules after kill $kill"
    "$TAMSEL" --home "$DATA" import "$WORK/shared.json" >/dev/null 2>&1 || problem "the import failed after kill $kill"
    grep -qF 'crash-two' "$SAFARI_JSON/safari-custom+configurable.json" || problem "the custom Safari file lacks the import after kill $kill"
    expect_nothing_owed "after import kill $kill"
done
finish

# ---------------------------------------------------------------- update

GENERAL="block-ads block-trackers block-annoyances block-social block-comments block-adult"
PUBLISHED=$WORK/published
mkdir -p "$PUBLISHED"
# The new rule set: every general file gains one rule that names its file.
for name in $GENERAL; do
    sed -E "0,/\"rules\": ?\[/s//&{\"id\":\"new-$name\",\"name\":\"new\",\"content\":{\"trigger\":{\"url-filter\":\"new-rule-set-$name\"},\"action\":{\"type\":\"block\"}}},/" \
        "${CRASH_RULE_SET:-$SAMPLES}/$name.json" >"$PUBLISHED/$name.json"
done
cp "${CRASH_RULE_SET:-$SAMPLES}/block-international.json" "$PUBLISHED/"
SERVER_PID=""
harness_cleanup() { [ -z "$SERVER_PID" ] || kill "$SERVER_PID" 2>/dev/null; }
"$TAMSEL" --home "$WORK/server-home" filter-server --root "$PUBLISHED" --port 0 >"$WORK/server.out" 2>/dev/null &
SERVER_PID=$!
URL=""
for _ in $(seq 1 300); do
    URL=$(grep -m 1 -E '^http://127\.0\.0\.1:[0-9]+$' "$WORK/server.out")
    [ -n "$URL" ] && break
    sleep 0.1
done

begin "update killed $KILLS times: the rule set is all old or all new after the next command, which makes the owed rebuilds"
[ -n "$URL" ] || problem "the filter server did not start"
start_home
duration=$(measure update --server "$URL")
for kill in $(seq 1 "$KILLS"); do
    [ -n "$URL" ] || break
    start_home
    run_and_kill "$duration" update --server "$URL"
    expect_files_whole "update $kill"
    "$TAMSEL" --home "$DATA" https "update-$kill.example.com" >/dev/null 2>&1 || problem "https failed after update kill $kill"
    new=0
    for name in $GENERAL; do grep -qF "new-rule-set-$name" "$FILTERS/$name.json" && new=$((new + 1)); done
    [ "$new" -eq 0 ] || [ "$new" -eq 6 ] || problem "after update kill $kill, $new of the 6 general files are new"
    if [ "$new" -eq 6 ]; then
        grep -qF "new-rule-set-block-ads" "$SAFARI_ADS" || problem "the new rules did not reach block-ads' Safari file after kill $kill"
    fi
    expect_nothing_owed "after update kill $kill"
done
finish

# ---------------------------------------------------------------- leftovers

begin "after the kills, the next writer leaves no temporary files behind"
sleep 2.5
"$TAMSEL" --home "$DATA" https leftovers.example.com >/dev/null 2>&1 || problem "https failed"
leftovers=$(find "$DATA" -name '.*.tmp-*' | head -3)
[ -z "$leftovers" ] || problem "left behind: $leftovers"
finish

harness_summary
