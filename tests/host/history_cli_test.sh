#!/usr/bin/env bash
# End-to-end checks of `tamsel report-blocked`, `stats` and `history`: what is
# recorded per page, the statistics periods and chart buckets in a time zone
# with daylight saving, a damaged database, and programs reporting at once.
#
#   bash tests/host/history_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init history "$@"

STORE=$DATA/group/blocked-resources-data.sqlite
# Berlin moved to summer time on 31 March 2024.
export TZ=Europe/Berlin

fresh_home() { rm -rf "$DATA"; }

# report AT EXTENSION URL...: one report for the news page at the given time.
report() {
    local at=$1 extension=$2
    shift 2
    "$TAMSEL" --home "$DATA" report-blocked --now "$at" --page https://news.example/today \
        --extension "$extension" "$@" >/dev/null 2>"$WORK/err" || problem "report at $at failed"
}

# The number of chart buckets in `stats --json` output.
expect_buckets() {
    local count
    count=$(grep -o '"start":' "$WORK/out" | wc -l)
    [ "$count" -eq "$1" ] || problem "the series had $count buckets, expected $1"
}
# Per-extension counts of one bucket: BUCKET_START ADS TRACKERS INTERNATIONAL CUSTOM (others 0).
expect_bucket() {
    local counts="\"block-ads\":$2,\"block-trackers\":$3,\"block-annoyances\":0,\"block-social\":0,\"block-comments\":0,\"block-adult\":0,\"block-international\":$4,\"block-custom\":$5"
    expect_stdout_contains "{\"start\":\"$1\",\"counts\":{$counts}}"
}

# ---------------------------------------------------------------- report-blocked and history

fresh_home
begin "a report records each URL once per page and says how many are new"
tamsel report-blocked --page https://news.example/a --extension block-ads \
    https://ads.example/1.js https://ads.example/2.js https://ads.example/1.js
expect_status 0
expect_stdout "https://news.example/a: 2 new records, 2 on the page"
finish

begin "a later report for the page skips stored URLs, whichever extension blocked them"
tamsel --json report-blocked --page https://news.example/a --extension block-trackers \
    https://ads.example/2.js https://trackers.example/pixel.gif
expect_status 0
expect_stdout '{"page":"https://news.example/a","extension":"block-trackers","reported":2,"new":1,"pageCount":3}'
finish

begin "with -v the history's own lines go to standard error"
tamsel -v report-blocked --page https://news.example/b --extension block-international https://regional.example/a.js
expect_status 0
expect_stdout "https://news.example/b: 1 new record, 1 on the page"
expect_stderr_contains "Added History record: https://regional.example/a.js [regionalRules]"
expect_stderr_contains "Saved History record into Core Data background context"
expect_stderr_contains "Saved History Core Data"
finish

begin "history groups a page's records by content blocker, in the extensions' order"
tamsel report-blocked --page https://news.example/c --extension block-custom https://mine.example/x.js
tamsel report-blocked --page https://news.example/c --extension block-social https://social.example/like.js
tamsel history https://news.example/c
expect_status 0
expect_stdout "block-social (1)
  https://social.example/like.js
block-custom (1)
  https://mine.example/x.js"
tamsel history https://news.example/a
# The records of one report are saved as their pages answer, in no set order.
sed -n 2,3p "$WORK/out" | sort >"$WORK/ads"
expect_stdout_line "block-ads (2)"
printf '  https://ads.example/1.js\n  https://ads.example/2.js\n' | cmp -s - "$WORK/ads" || problem "block-ads' records are not 1.js and 2.js"
[ "$(sed -n 4,5p "$WORK/out")" = "block-trackers (1)
  https://trackers.example/pixel.gif" ] || problem "block-trackers' record does not follow block-ads'"
finish

begin "history --json lists the content blockers and their records"
tamsel --json history https://news.example/a
expect_status 0
expect_stdout_contains '{"page":"https://news.example/a","contentBlockers":["block-ads","block-trackers"],"records":{"block-ads":[{"url":"https://ads.example/'
expect_stdout_contains '{"url":"https://ads.example/1.js","date":"'
expect_stdout_contains '{"url":"https://ads.example/2.js","date":"'
expect_stdout_contains '"block-trackers":[{"url":"https://trackers.example/pixel.gif","date":"'
finish

begin "--now takes UTC, an offset or the local wall clock"
tamsel report-blocked --now 2024-05-10T07:00:00Z --page https://times.example/ --extension block-ads https://a.example/utc
tamsel report-blocked --now "2024-05-10 09:30-0100" --page https://times.example/ --extension block-ads https://a.example/offset
tamsel report-blocked --now 2024-10-27T02:30 --page https://times.example/ --extension block-ads https://a.example/repeated
tamsel --json history https://times.example/
expect_stdout_contains '{"url":"https://a.example/utc","date":"2024-05-10T09:00:00+02:00"}'
expect_stdout_contains '{"url":"https://a.example/offset","date":"2024-05-10T12:30:00+02:00"}'
# 02:30 happened twice that night; the first is meant.
expect_stdout_contains '{"url":"https://a.example/repeated","date":"2024-10-27T02:30:00+02:00"}'
finish

begin "records dated far from today keep their dates"
tamsel report-blocked --now 9999-12-31T12:00:00Z --page https://far.example/ --extension block-ads https://a.example/late
tamsel report-blocked --now 1900-01-01T12:00:00Z --page https://far.example/ --extension block-ads https://a.example/early
tamsel --json history https://far.example/
expect_stdout_contains '{"url":"https://a.example/late","date":"9999-12-31T13:00:00+01:00"}'
expect_stdout_contains '{"url":"https://a.example/early","date":"1900-01-01T13:00:00+01:00"}'
finish

begin "history of a page without records is a reported failure"
tamsel history https://nothing.example/
expect_status 1
expect_stdout_empty
expect_stderr_contains "tamsel: no blocked resources recorded for https://nothing.example/"
finish

begin "bad report arguments are usage errors"
tamsel report-blocked --page https://news.example/a --extension block-everything https://x.example/
expect_status 2
expect_stderr_contains "tamsel: --extension: no content blocker block-everything (one of block-ads,"
tamsel report-blocked --page https://news.example/a --extension block-ads
expect_status 2
tamsel report-blocked --page https://news.example/a --extension block-ads --now yesterday https://x.example/
expect_status 2
expect_stderr_contains "not a time: yesterday"
tamsel stats --period month
expect_status 2
tamsel history https://news.example/a
expect_stdout_contains "block-ads (2)"
finish

# ---------------------------------------------------------------- stats

fresh_home
begin "an empty store has zero totals and counters and no all-time series"
tamsel --json stats
expect_status 0
expect_stdout '{"period":"allTime","totals":{"today":0,"thisWeek":0,"allTime":0},"categories":{"ads":0,"trackers":0,"others":0},"firstBlockedResourceDate":null,"series":null}'
tamsel stats --period week --json --now 2024-05-10T12:00
expect_buckets 7
finish

fresh_home
report 2024-03-26T10:00 block-ads https://ads.example/first
report 2024-03-27T23:59:58 block-ads https://ads.example/late
report 2024-03-27T23:59:59 block-ads https://ads.example/last-second
report 2024-03-28T00:00 block-trackers https://trackers.example/midnight
report 2024-05-10T09:00 block-custom https://mine.example/morning
report 2024-05-10T11:00 block-international https://regional.example/late-morning

begin "all time: 45 days of history make 30 buckets of two days, in local time across the change"
tamsel --json stats --now 2024-05-10T12:00
expect_status 0
expect_stdout_contains '"period":"allTime","totals":{"today":2,"thisWeek":2,"allTime":6}'
expect_stdout_contains '"categories":{"ads":4,"trackers":1,"others":1}'
expect_stdout_contains '"firstBlockedResourceDate":"2024-03-26T10:00:00+01:00"'
expect_buckets 30
# The last second of 27 March falls into no bucket.
expect_bucket 2024-03-26T00:00:00+01:00 2 0 0 0
expect_bucket 2024-03-28T00:00:00+01:00 0 1 0 0
expect_bucket 2024-03-30T00:00:00+01:00 0 0 0 0
expect_bucket 2024-04-01T00:00:00+02:00 0 0 0 0
expect_bucket 2024-05-09T00:00:00+02:00 0 0 1 1
expect_bucket 2024-05-21T00:00:00+02:00 0 0 0 0
finish

begin "today at noon: seven two-hour buckets up to the one holding now"
tamsel --json stats --period today --now 2024-05-10T12:00
expect_status 0
expect_stdout_contains '"categories":{"ads":1,"trackers":0,"others":1}'
expect_buckets 7
expect_bucket 2024-05-10T00:00:00+02:00 0 0 0 0
expect_bucket 2024-05-10T08:00:00+02:00 0 0 0 1
expect_bucket 2024-05-10T10:00:00+02:00 0 0 1 0
expect_bucket 2024-05-10T12:00:00+02:00 0 0 0 0
tamsel --json stats --period today --now 2024-05-10T00:30
expect_buckets 1
tamsel --json stats --period today --now 2024-05-10T23:10
expect_buckets 12
expect_bucket 2024-05-10T22:00:00+02:00 0 0 0 0
finish

begin "this week across the change to summer time: seven calendar days, today included"
tamsel --json stats --period week --now 2024-04-02T12:00
expect_status 0
# The week runs from 27 March 00:00, so its one interval holds 27 March's
# last second, while the day bucket of 27 March does not.
expect_stdout_contains '"totals":{"today":0,"thisWeek":3,"allTime":6}'
expect_stdout_contains '"categories":{"ads":2,"trackers":1,"others":0}'
expect_buckets 7
expect_bucket 2024-03-27T00:00:00+01:00 1 0 0 0
expect_bucket 2024-03-28T00:00:00+01:00 0 1 0 0
expect_bucket 2024-03-31T00:00:00+01:00 0 0 0 0
expect_bucket 2024-04-01T00:00:00+02:00 0 0 0 0
expect_bucket 2024-04-02T00:00:00+02:00 0 0 0 0
finish

begin "with the first record yesterday the all-time series has two daily buckets"
tamsel --json stats --now 2024-03-27T12:00
expect_buckets 2
expect_bucket 2024-03-26T00:00:00+01:00 1 0 0 0
expect_bucket 2024-03-27T00:00:00+01:00 1 0 0 0
# Less than a whole day of history shows the today series instead.
tamsel --json stats --now 2024-03-27T08:00
expect_buckets 5
finish

begin "the text form shows totals, counters and one row per bucket"
tamsel stats --period today --now 2024-05-10T03:00
expect_status 0
expect_stdout "today       2
this week   2
all time    6
first       2024-03-26T10:00:00+01:00

period      today
ads         1
trackers    0
others      1

START                      block-ads block-trackers block-annoyances block-social block-comments block-adult block-international block-custom
2024-05-10T00:00:00+02:00          0              0                0            0              0           0                   0            0
2024-05-10T02:00:00+02:00          0              0                0            0              0           0                   0            0"
finish

# ---------------------------------------------------------------- damage and concurrency

fresh_home
begin "a damaged database is moved aside and the statistics start again from nothing"
mkdir -p "$(dirname "$STORE")"
head -c 20000 /dev/urandom >"$STORE"
tamsel --json stats
expect_status 0
expect_stdout_contains '"totals":{"today":0,"thisWeek":0,"allTime":0}'
expect_stderr_empty
expect_log_contains "is damaged"
expect_log_contains "moved it aside to $STORE.corrupt-"
ls "$STORE".corrupt-* >/dev/null 2>&1 || problem "no file was moved aside"
tamsel report-blocked --page https://news.example/ --extension block-ads https://ads.example/after
expect_status 0
finish

fresh_home
begin "programs reporting at the same time lose no record"
pids=""
for n in 1 2 3 4; do
    urls=""
    for i in $(seq 1 40); do urls="$urls https://cdn.example/$n/$i.js"; done
    # shellcheck disable=SC2086
    "$TAMSEL" --home "$DATA" report-blocked --page "https://site$n.example/" --extension block-trackers $urls \
        >/dev/null 2>&1 &
    pids="$pids $!"
done
for pid in $pids; do wait "$pid" || problem "a report failed"; done
tamsel --json stats
expect_stdout_contains '"allTime":160}'
expect_stdout_contains '"categories":{"ads":0,"trackers":160,"others":0}'
tamsel history https://site3.example/
expect_stdout_contains "block-trackers (40)"
finish

harness_summary
