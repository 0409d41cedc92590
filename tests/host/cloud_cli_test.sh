#!/usr/bin/env bash
# End-to-end checks of `tamsel cloud-server` and `tamsel cloud`: a loopback
# cloud server on a temporary SQLite file, its users and reports, and a data
# root signing in and out.
#
#   bash tests/host/cloud_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init cloud "$@"

SERVER_PID=""
harness_cleanup() { [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null; }

DB="sqlite:$WORK/cloud.sqlite"
server() { "$TAMSEL" --home "$WORK/server-home" cloud-server "$@" >"$WORK/out" 2>"$WORK/err"; status=$?; }

begin "add-user prints a token alone; users lists them"
server add-user alice --database "$DB"
expect_status 0
expect_stdout_lines 1
ALICE=$(cat "$WORK/out")
[[ "$ALICE" =~ ^[0-9a-f]{64}$ ]] || problem "the token was '$ALICE'"
server add-user root --admin --database "$DB"
ROOT=$(cat "$WORK/out")
server add-user alice --database "$DB"
expect_status 1
expect_stderr_contains 'already a user "alice"'
server users --json --database "$DB"
expect_stdout_contains '"name":"alice","admin":false'
expect_stdout_contains '"name":"root","admin":true'
finish

begin "the server prints where it listens first"
"$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" >"$WORK/server.out" 2>"$WORK/server.err" &
SERVER_PID=$!
URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
[ -n "$URL" ] || problem "no 'listening on' line: $(cat "$WORK/server.out" "$WORK/server.err")"
finish

begin "no account: status says so"
tamsel cloud status
expect_status 0
expect_stdout "No account"
tamsel cloud status --json
expect_stdout '{"server":null,"user":null,"accountStatus":"no account"}'
finish

begin "a wrong token does not sign in"
tamsel cloud login --server "$URL" --user alice --token 0000
expect_status 1
expect_stderr_contains "no account"
tamsel cloud status
expect_stdout "No account"
finish

begin "login, status, logout"
tamsel cloud login --server "$URL" --user alice --token "$ALICE"
expect_status 0
expect_stdout "Signed in to $URL as alice"
[ "$(stat -c %a "$DATA/cloud/account.json")" = 600 ] || problem "the account file is readable by others"
tamsel cloud status --json
expect_stdout "{\"server\":\"$URL\",\"user\":\"alice\",\"accountStatus\":\"available\"}"
# Signed in, the iCloud key-value store's writes leave with the program.
tamsel defaults write --store ubiquitous greeting -string hello
expect_status 0
curl -s -H "Authorization: Bearer $ALICE" -d '{}' \
    "$URL/database/1/iCloud.app.tamsel.Tamsel/development/private/kvs/changes" | grep -q '"key":"greeting"' ||
    problem "the key-value write did not reach the server"
tamsel defaults read --store ubiquitous greeting
expect_status 0
expect_stdout 'hello'
server revoke-token alice --database "$DB"
expect_status 0
tamsel cloud status
expect_stdout_line "Account status: no account"
tamsel cloud logout
expect_stdout "Signed out"
tamsel cloud status
expect_stdout "No account"
finish

begin "reports: newest first, for the administrator's eyes"
curl -s -o /dev/null -H "Authorization: Bearer $ROOT" -H 'Content-Type: application/json' \
    -d '{"operations":[{"operationType":"create","record":{"recordName":"R1","recordType":"Report","fields":{"type":{"value":"brokenSite","type":"STRING"},"url":{"value":"https://a.example/","type":"STRING"}}}}]}' \
    "$URL/database/1/iCloud.app.tamsel.Tamsel.Report/production/public/records/modify"
sleep 0.01
curl -s -o /dev/null -H "Authorization: Bearer $ROOT" -H 'Content-Type: application/json' \
    -d '{"operations":[{"operationType":"create","record":{"recordName":"R2","recordType":"Report","fields":{"type":{"value":"emptySpace","type":"STRING"},"url":{"value":"https://b.example/","type":"STRING"}}}}]}' \
    "$URL/database/1/iCloud.app.tamsel.Tamsel.Report/production/public/records/modify"
server reports --database "$DB"
expect_status 0
expect_stdout_lines 2
head -1 "$WORK/out" | grep -q 'R2  type=emptySpace  url=https://b.example/' || problem "the newest report is not first"
server reports --json --database "$DB"
expect_stdout_contains '"container":"iCloud.app.tamsel.Tamsel.Report","environment":"production","recordName":"R2"'
finish

begin "remove-user"
server remove-user alice --database "$DB"
expect_status 0
server remove-user alice --database "$DB"
expect_status 1
finish

kill "$SERVER_PID" 2>/dev/null
wait "$SERVER_PID" 2>/dev/null
SERVER_PID=""

begin "killed while writing, the database stays whole"
"$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" >"$WORK/server.out" 2>&1 &
SERVER_PID=$!
URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
ops=""
for i in $(seq 1 300); do ops="$ops${ops:+,}{\"operationType\":\"create\",\"record\":{\"recordName\":\"r$i\",\"recordType\":\"rule\",\"fields\":{\"name\":{\"value\":\"$i\",\"type\":\"STRING\"}}}}"; done
echo "{\"operations\":[$ops]}" >"$WORK/batch.json"
(for b in $(seq 1 30); do
    sed "s/\"r\([0-9]*\)\"/\"b$b-r\1\"/g" "$WORK/batch.json" |
        curl -s -o /dev/null -H "Authorization: Bearer $ROOT" -H 'Content-Type: application/json' --data-binary @- \
            "$URL/database/1/C/development/private/records/modify"
done) &
writer=$!
sleep 0.5
kill -9 "$SERVER_PID"
wait "$SERVER_PID" 2>/dev/null
wait "$writer" 2>/dev/null
"$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" >"$WORK/server.out" 2>&1 &
SERVER_PID=$!
URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
[ -n "$URL" ] || problem "the server did not start again on the database"
# Whole batches only: the number of records is a multiple of 300.
total=0
token=""
while :; do
    body='{"zones":[{"zoneID":{"zoneName":"_defaultZone"}'${token:+,\"syncToken\":\"$token\"}'}]}'
    answer=$(curl -s -H "Authorization: Bearer $ROOT" -H 'Content-Type: application/json' -d "$body" \
        "$URL/database/1/C/development/private/changes/zone")
    total=$((total + $(grep -o '"recordChangeTag"' <<<"$answer" | wc -l)))
    token=$(grep -o '"syncToken":"[^"]*"' <<<"$answer" | cut -d'"' -f4)
    [ -n "$token" ] || { problem "no changes answer: $answer"; break; }
    grep -q '"moreComing":true' <<<"$answer" || break
done
[ $((total % 300)) -eq 0 ] || problem "$total records: a batch was cut in half"
echo "    (after the kill: $total records, in whole batches)"
kill "$SERVER_PID" 2>/dev/null
wait "$SERVER_PID" 2>/dev/null
SERVER_PID=""
finish

if command -v openssl >/dev/null; then
    begin "with a certificate and key it serves https"
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$WORK/key.pem" -out "$WORK/cert.pem" -days 1 \
        -subj /CN=127.0.0.1 >/dev/null 2>&1
    "$TAMSEL" --home "$WORK/server-home" cloud-server --listen 127.0.0.1:0 --database "$DB" \
        --tls-cert "$WORK/cert.pem" --tls-key "$WORK/key.pem" >"$WORK/server.out" 2>&1 &
    SERVER_PID=$!
    URL=$(listening_url "$WORK/server.out" "$SERVER_PID")
    [[ $URL == https://* ]] || problem "no https address: $(cat "$WORK/server.out")"
    curl -sk -H "Authorization: Bearer $ROOT" "$URL/database/1/C/development/private/users/current" | grep -q userRecordName ||
        problem "users/current over https failed"
    kill "$SERVER_PID" 2>/dev/null
    wait "$SERVER_PID" 2>/dev/null
    SERVER_PID=""
    finish
fi

harness_summary
