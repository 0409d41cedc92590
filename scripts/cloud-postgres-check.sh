#!/usr/bin/env bash
# The cloud server on PostgreSQL: a throwaway cluster on loopback, two server
# processes on one database, a change written through one and fetched
# through the other (also with both writing at once); then the cloud test
# program's server and client tests on the same database.
#
#   scripts/cloud-postgres-check.sh BUILD_DIR      (e.g. build/dev)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/dev}
tamsel=$build/tamsel
work=$(mktemp -d /tmp/tamsel-cloud-pg-XXXXXX)
# The cluster runs as the user postgres, who must reach its folder.
chmod 711 "$work"
servers=()
cleanup() {
    for pid in "${servers[@]}"; do kill "$pid" 2>/dev/null || true; done
    scripts/postgres-throwaway.sh stop "$work/pg"
    rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "cloud-postgres-check: $*" >&2; exit 1; }

db=""
for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 20000))
    if db=$(scripts/postgres-throwaway.sh start "$work/pg" "$port" 2>"$work/pg-start.err"); then break; fi
    db=""
    scripts/postgres-throwaway.sh stop "$work/pg"
    rm -rf "$work/pg"
done
[ -n "$db" ] || fail "no PostgreSQL cluster: $(cat "$work/pg-start.err")"
echo "cloud-postgres-check: cluster at $db"

token=$("$tamsel" --home "$work/admin" cloud-server add-user alice --database "$db")

# start_server NAME VARIABLE: runs in this shell (not a command substitution),
# so that the server's process id reaches `servers` and the cleanup.
start_server() {
    local name=$1 url
    "$tamsel" --home "$work/$name" cloud-server --listen 127.0.0.1:0 --database "$db" >"$work/$name.out" 2>"$work/$name.err" &
    servers+=($!)
    for _ in $(seq 1 300); do
        url=$(sed -n '1s/^listening on \(http:\/\/127\.0\.0\.1:[0-9]*\)$/\1/p' "$work/$name.out")
        [ -n "$url" ] && { printf -v "$2" '%s' "$url"; return 0; }
        sleep 0.1
    done
    fail "server $name did not start: $(cat "$work/$name.err")"
}
start_server a A
start_server b B
echo "cloud-postgres-check: servers at $A and $B"

call() {  # call BASE ENDPOINT BODY
    curl -sf -H "Authorization: Bearer $token" -H 'Content-Type: application/json' -d "$3" \
        "$1/database/1/iCloud.app.tamsel.Tamsel/development/private/$2"
}
create() {  # create BASE NAME
    call "$1" records/modify "{\"zoneID\":{\"zoneName\":\"Z\"},\"operations\":[{\"operationType\":\"create\",\"record\":{\"recordName\":\"$2\",\"recordType\":\"rule\",\"fields\":{\"name\":{\"value\":\"$2\",\"type\":\"STRING\"}}}}]}"
}
fetch_all() {  # fetch_all BASE TOKEN → record names, one a line; last token in $work/token
    local token_=$1 base=$2 answer more
    while :; do
        if [ -n "$token_" ]; then
            answer=$(call "$base" changes/zone "{\"zones\":[{\"zoneID\":{\"zoneName\":\"Z\"},\"syncToken\":\"$token_\"}]}")
        else
            answer=$(call "$base" changes/zone '{"zones":[{"zoneID":{"zoneName":"Z"}}]}')
        fi
        grep -o '"recordName":"[^"]*"' <<<"$answer" | cut -d'"' -f4
        token_=$(grep -o '"syncToken":"[^"]*"' <<<"$answer" | cut -d'"' -f4)
        more=$(grep -o '"moreComing":[a-z]*' <<<"$answer" | cut -d: -f2)
        [ -n "$token_" ] || fail "no token in $answer"
        [ "$more" = true ] || break
    done
    echo "$token_" >"$work/token"
}

call "$A" zones/modify '{"operations":[{"operationType":"create","zone":{"zoneID":{"zoneName":"Z"}}}]}' >/dev/null
create "$A" written-through-a | grep -q recordChangeTag || fail "the write through A failed"
names=$(fetch_all "" "$B")
[ "$names" = written-through-a ] || fail "B fetched '$names', expected the record written through A"
first_token=$(cat "$work/token")
echo "cloud-postgres-check: a change written through A was fetched through B"

# A device listening on B hears of a write through A.
call "$A" subscriptions/modify '{"operations":[{"operationType":"create","subscription":{"subscriptionID":"s","subscriptionType":"zone","zoneID":{"zoneName":"Z"}}}]}' >/dev/null
curl -sN -H "Authorization: Bearer $token" -H 'X-Tamsel-Device-ID: listener' \
    "$B/database/1/iCloud.app.tamsel.Tamsel/development/private/notifications" >"$work/events" &
listener=$!
for _ in $(seq 1 100); do grep -q '^event: ready' "$work/events" 2>/dev/null && break; sleep 0.1; done
create "$A" pushed >/dev/null
for _ in $(seq 1 100); do grep -q '^event: zoneChanged' "$work/events" && break; sleep 0.1; done
kill "$listener" 2>/dev/null || true
grep -q '^event: zoneChanged' "$work/events" || fail "a device on B was not told of a write through A"
echo "cloud-postgres-check: a device on B was told of a write through A"
first_token=$(fetch_all "$first_token" "$B" >/dev/null; cat "$work/token")

# Both servers write at once; a reader following along misses nothing.
(for i in $(seq 1 40); do create "$A" "a-$i" >/dev/null; done) &
writer_a=$!
(for i in $(seq 1 40); do create "$B" "b-$i" >/dev/null; done) &
writer_b=$!
seen=$(fetch_all "$first_token" "$A")
wait "$writer_a" "$writer_b"
seen="$seen
$(fetch_all "$(cat "$work/token")" "$B")"
count=$(grep -c . <<<"$(sort -u <<<"$seen")")
[ "$count" -eq 80 ] || fail "the readers saw $count of the 80 records written through both servers"
echo "cloud-postgres-check: 80 records written through both servers at once, all fetched in order"

for pid in "${servers[@]}"; do kill "$pid"; wait "$pid" 2>/dev/null || true; done
servers=()

TAMSEL_CLOUD_TEST_POSTGRESQL=$db "$build/tests/tamsel_cloud_tests" --gtest_brief=1 \
    --gtest_filter='CloudServerTest.*:CloudClientTest.*:KeyValueSyncTest.*'
echo "cloud-postgres-check: passed"
