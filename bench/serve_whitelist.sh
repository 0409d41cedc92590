#!/usr/bin/env bash
# How long a whitelist change saved in the popover's whitelist editor of a
# running `tamsel serve` takes until all eight Safari JSON files are
# rewritten and reloaded, and the process's resident memory while idle.
#
#   bench/serve_whitelist.sh build/release/tamsel DATA_ROOT [RUNS]
#
# DATA_ROOT is a data root that `bench_generate_rule_set --home` filled and
# `tamsel --home DATA_ROOT compile` compiled. Each run is one API call (the
# editor's switch, alternately on and off). Two figures a run: until the last
# reload was asked of Safari (the time of the last "Starting to reload" line
# of the run in the process's log), and until the extension manager is idle
# and every Safari JSON file has been replaced since the call (the files are
# then on disk too; this one includes the script's polling).
set -euo pipefail
TAMSEL=$1
HOME_DIR=$2
RUNS=${3:-10}
SAFARI_JSON="$HOME_DIR/group/Library/Application Support/Safari JSON"

out=$(mktemp)
"$TAMSEL" --home "$HOME_DIR" serve --listen 127.0.0.1:0 >"$out" &
pid=$!
trap 'kill -TERM $pid 2>/dev/null; wait $pid 2>/dev/null; rm -f "$out"' EXIT
for _ in $(seq 600); do grep -q '^listening on ' "$out" && break; sleep 0.1; done
BASE=$(sed -n 's/^listening on //p' "$out")
post() { curl -sf -o /dev/null -X POST -d "${2:-{\}}" "$BASE$1"; }
idle() { [ "$(curl -sf "$BASE/api/extensions")" = '{"idle":true}' ]; }
stamps() { stat -c %Y.%y "$SAFARI_JSON"/*.json | sort; }
now_ms() { date +%s%3N; }
LOG="$HOME_DIR/logs/tamsel.log"
# The time of the last reload request logged after line $1 of the log, in ms.
last_reload_ms() {
    local stamp
    stamp=$(tail -n +"$(($1 + 1))" "$LOG" | grep 'Starting to reload extension' | tail -1 | cut -d' ' -f1,2 || true)
    if [ -n "$stamp" ]; then date -d "$stamp" +%s%3N; else now_ms; fi
}

post /api/tabs '{"url": "https://www.bench-site.example/"}'
post /api/popover/show
post /api/popover/rows/whitelist/click
# From blocking on (a data root may come with the site whitelisted by an earlier run).
post /api/popover/child/turnOffBlocking '{"on": false}'
until idle; do sleep 0.05; done

times=()
requested=()
on=true
for run in $(seq "$RUNS"); do
    before=$(stamps)
    lines=$(wc -l <"$LOG")
    start=$(now_ms)
    post /api/popover/child/turnOffBlocking "{\"on\": $on}"
    deadline=$(($(now_ms) + 120000))
    while [ "$(now_ms)" -lt "$deadline" ]; do
        if idle; then
            changed=$(comm -12 <(echo "$before") <(stamps) | wc -l)
            [ "$changed" -eq 0 ] && break
        fi
        sleep 0.005
    done
    times+=($(($(now_ms) - start)))
    requested+=($(($(last_reload_ms "$lines") - start)))
    [ "$on" = true ] && on=false || on=true
done
sleep 2
rss=$(awk '/^VmRSS/ {print $2}' "/proc/$pid/status")
sorted=($(printf '%s\n' "${times[@]}" | sort -n))
asked=($(printf '%s\n' "${requested[@]}" | sort -n))
rules=$(cat "$SAFARI_JSON"/*.json | grep -o '"trigger"' | wc -l)
echo "whitelist change to the last reload asked of Safari: median ${asked[$((RUNS / 2))]} ms, best ${asked[0]} ms over $RUNS runs (all: ${requested[*]} ms)"
echo "whitelist change to 8 files rewritten, reloaded and on disk: median ${sorted[$((RUNS / 2))]} ms, best ${sorted[0]} ms (all: ${times[*]} ms)"
echo "input: $(ls "$SAFARI_JSON"/*.json | wc -l) Safari JSON files, $rules entries, $(du -cb "$SAFARI_JSON"/*.json | tail -1 | cut -f1) bytes"
echo "resident memory while idle: $((rss / 1024)) MiB"
