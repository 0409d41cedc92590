#!/usr/bin/env bash
# End-to-end checks of several `tamsel` processes writing one data root at
# once, and of rebuilds that did not finish: no change is lost between
# processes, and a rebuild owed by a failed or killed run is made by the next
# writer.
#
#   bash tests/host/writers_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init writers "$@"

CONFIGURABLE="$FILTERS/block-configurable.json"
SAFARI_ADS="$SAFARI_JSON/safari-block-ads.json"
WORKERS=4
CHANGES=25

# ---------------------------------------------------------------- lost updates

# Worker W whitelists d<W>-<J>.example.com for J = 1..CHANGES and, after every
# fifth, takes the one before last off again: 30 changes a worker, none of
# which may be lost, and no removed domain may come back.
worker() {
    local w=$1 j
    for j in $(seq 1 "$CHANGES"); do
        "$TAMSEL" --home "$DATA" whitelist "d$w-$j.example.com" >/dev/null 2>>"$WORK/worker-$w.err" ||
            echo "whitelist d$w-$j failed" >>"$WORK/worker-$w.failures"
        if [ $((j % 5)) -eq 0 ]; then
            "$TAMSEL" --home "$DATA" unwhitelist "d$w-$((j - 1)).example.com" >/dev/null 2>>"$WORK/worker-$w.err" ||
                echo "unwhitelist d$w-$((j - 1)) failed" >>"$WORK/worker-$w.failures"
        fi
    done
}

fresh_home
"$TAMSEL" --home "$DATA" compile >/dev/null 2>&1
begin "$WORKERS processes x $((CHANGES + CHANGES / 5)) whitelist changes at once lose none"
for w in $(seq 1 "$WORKERS"); do worker "$w" & done
wait
for w in $(seq 1 "$WORKERS"); do
    [ ! -s "$WORK/worker-$w.failures" ] || problem "worker $w: $(head -3 "$WORK/worker-$w.failures")"
    for j in $(seq 1 "$CHANGES"); do
        domain="\"d$w-$j.example.com\""
        if [ $((j % 5)) -eq 4 ]; then
            ! grep -qF "$domain" "$CONFIGURABLE" || problem "removed $domain is back in the whitelist"
            ! grep -qF "$domain" "$SAFARI_ADS" || problem "removed $domain is still in block-ads' Safari file"
        else
            grep -qF "$domain" "$CONFIGURABLE" || problem "$domain was lost from the whitelist"
            grep -qF "$domain" "$SAFARI_ADS" || problem "$domain is missing from block-ads' Safari file"
        fi
    done
done
tamsel extensions
expect_status 0
expect_stdout_lacks "owes a rebuild"
finish

begin "no temporary file is left behind by the writers"
leftovers=$(find "$DATA" -name '.*.tmp-*' | head -3)
[ -z "$leftovers" ] || problem "left behind: $leftovers"
finish

# ---------------------------------------------------------------- owed rebuilds

fresh_home
"$TAMSEL" --home "$DATA" compile >/dev/null 2>&1
begin "a reload that fails for good leaves its extension owing a rebuild"
"$TAMSEL" --home "$DATA" safari fail-next block-ads 6 1 >/dev/null 2>&1
tamsel whitelist owed.example.com
expect_status 1
tamsel extensions
expect_stdout_contains "owes a rebuild"
grep -q '^block-ads: .*failed.*owes a rebuild' "$WORK/out" || problem "block-ads is not shown owing a rebuild"
tamsel extensions --json
expect_stdout_contains '"owesRebuild":true'
finish

begin "the next writer makes the owed rebuild, even when its own change is none"
tamsel whitelist owed.example.com
expect_status 0
expect_stdout_contains "unchanged"
grep -qF '"owed.example.com"' "$SAFARI_ADS" || problem "block-ads' Safari file lacks the whitelisted domain"
tamsel extensions
expect_stdout_lacks "owes a rebuild"
grep -q '^block-ads: .*last reload .* ok' "$WORK/out" || problem "block-ads was not reloaded again"
finish

begin "a damaged ledger makes every extension owe a rebuild, and the next writer pays"
printf 'next banana\n' >"$DATA/group/rebuilds-owed.txt"
tamsel extensions
expect_status 0
[ "$(grep -c 'owes a rebuild' "$WORK/out")" -eq 8 ] || problem "not all eight extensions owe a rebuild"
tamsel https owed.example.com
expect_status 0
tamsel extensions
expect_stdout_lacks "owes a rebuild"
finish

begin "a writer removes temporary files that a killed writer left, not live ones"
stale="$SAFARI_JSON/.safari-block-ads.json.tmp-AbC123"
printf '[{"trigger"' >"$stale"
touch -d '1 hour ago' "$stale"
young="$SAFARI_JSON/.safari-block-ads.json.tmp-XyZ789"
printf '[' >"$young"
tamsel unhttps owed.example.com
expect_status 0
[ ! -e "$stale" ] || problem "the stale temporary file is still there"
[ -e "$young" ] || problem "a temporary file too young to be stale was removed"
finish

harness_summary
