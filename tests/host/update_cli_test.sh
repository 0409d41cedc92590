#!/usr/bin/env bash
# End-to-end checks of `tamsel filter-server` and `tamsel update`: a loopback
# filter server publishes the sample package files, and updates install them
# under a temporary data root.
#
#   bash tests/host/update_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init update "$@"

SERVERS=""
harness_cleanup() {
    for pid in $SERVERS; do kill "$pid" 2>/dev/null; done
    for pid in $SERVERS; do wait "$pid" 2>/dev/null; done
}

PUBLISHED=$WORK/published
FIRST_VERSION="Tue, 05 Mar 2024 12:34:56 GMT"
SECOND_VERSION="Wed, 06 Mar 2024 08:00:00 GMT"

# start_server ARGS...: runs `tamsel filter-server ARGS...` in the
# background and leaves its address in $URL (empty when it did not start).
servers_started=0
start_server() {
    servers_started=$((servers_started + 1))
    local out=$WORK/server-$servers_started
    "$TAMSEL" --home "$WORK/server-home" filter-server "$@" >"$out.out" 2>"$out.err" &
    local pid=$!
    SERVERS="$SERVERS $pid"
    URL=""
    for _ in $(seq 1 300); do
        URL=$(grep -m 1 -E '^http://127\.0\.0\.1:[0-9]+$' "$out.out")
        [ -n "$URL" ] && return 0
        kill -0 "$pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}

# The filters folder holds exactly the published files, byte for byte (but
# for the user's configurable packages).
expect_installed_as_published() {
    local published installed
    published=$(cd "$PUBLISHED" && ls | sort)
    installed=$(cd "$FILTERS" 2>/dev/null && ls | sort)
    [ "$published" = "$installed" ] || problem "installed files differ: $(echo $installed)"
    for file in $published; do
        # The configurable packages are the user's from the first use on; the
        # published ones only seed a folder that has none.
        [ "$file" != block-configurable.json ] || continue
        cmp -s "$PUBLISHED/$file" "$FILTERS/$file" || problem "$file differs from the published one"
    done
}
# Nothing of a download or an unpack is left behind.
expect_no_strays() {
    local strays
    strays=$(find "$DATA" \( -name '.*.download-*' -o -name '.*.unpacking-*' -o -name 'data.zip' \) -print)
    [ -z "$strays" ] || problem "left behind: $strays"
}
snapshot_filters() { (cd "$FILTERS" && for f in *; do echo "$f $(cksum <"$f")"; done) >"$WORK/$1"; }
expect_filters_as() {
    snapshot_filters now
    cmp -s "$WORK/$1" "$WORK/now" || problem "the installed files changed"
}
# The failure is told in one line: "tamsel: update failed (CODE): reason".
expect_one_failure_line() {
    local lines
    lines=$(grep -c '^tamsel: ' "$WORK/err")
    [ "$lines" -eq 1 ] || problem "$lines lines of 'tamsel: ' on stderr, expected 1"
    grep -qE "^tamsel: update failed \($1\): .+" "$WORK/err" || problem "stderr lacks 'tamsel: update failed ($1): …'"
}
expect_version() {
    "$TAMSEL" --home "$DATA" defaults read localVersion >"$WORK/version" 2>/dev/null
    grep -qF -- "$1" "$WORK/version" || problem "localVersion is '$(cat "$WORK/version")', expected '$1'"
}

# ------------------------------------------------------------- the rule set

mkdir -p "$PUBLISHED"
for file in "$SOURCE"/resources/packages/*.json; do
    # The user's own rules never come from the server.
    [ "$(basename "$file")" = block-custom.json ] || cp "$file" "$PUBLISHED/"
done
printf '0.0.0.0 ads.example\n' >"$PUBLISHED/hosts.txt"
# The server publishes the newest modification time as the version.
touch -d "2024-03-05 12:34:56 UTC" "$PUBLISHED"/*

begin "filter-server prints its address and serves"
if start_server --root "$PUBLISHED" --port 0; then
    MAIN_URL=$URL
else
    problem "the filter server did not print its address"
    MAIN_URL=http://127.0.0.1:9
fi
finish

# ------------------------------------------------------------ first install

begin "with no filter server configured, update says so and asks nothing"
tamsel update
expect_status 1
expect_stdout_empty
expect_stderr_lines 1
expect_stderr_contains "tamsel: update: no filter server is configured"
finish

begin "with no filter server configured, a missing filter file stays missing"
# The first use has put the shipped files in place.
tamsel packages
rm "$FILTERS/block-ads.json"
tamsel packages
expect_status 0
expect_stderr_empty
[ ! -e "$FILTERS/block-ads.json" ] || problem "the file came back"
expect_log_contains "No filter server configured; not downloading filters"
! grep -qF "Downloading file" "$DATA/$LOG_FILE_NAME" || problem "a download was tried"
finish

begin "with a filter server configured, a missing general file is fetched from it"
"$TAMSEL" --home "$DATA" defaults write FilterServerBaseURL -string "$MAIN_URL"
tamsel packages
expect_status 0
expect_stderr_empty
cmp -s "$PUBLISHED/block-ads.json" "$FILTERS/block-ads.json" || problem "block-ads.json was not fetched"
"$TAMSEL" --home "$DATA" defaults delete FilterServerBaseURL
finish

rm -rf "$DATA"
"$TAMSEL" --home "$DATA" extensions >/dev/null 2>&1
touch "$WORK/stamp"
begin "update --no-reload installs the published files and records the version"
tamsel update --server "$MAIN_URL" --no-reload
expect_status 0
expect_stdout_line "result: success"
expect_stdout_line "version: $FIRST_VERSION"
# Standard output is no terminal here: plain progress lines.
expect_stdout_contains "progress: 100%"
expect_installed_as_published
expect_no_strays
expect_version "$FIRST_VERSION"
[ -z "$(find "$SAFARI_JSON" -newer "$WORK/stamp")" ] || problem "--no-reload wrote Safari JSON files"
finish

begin "a second update finds no new rules"
snapshot_filters first
tamsel update --server "$MAIN_URL"
expect_status 0
expect_stdout_line "result: noNewUpdates"
expect_stdout_lacks "progress:"
expect_filters_as first
finish

begin "update --json prints one object"
tamsel update --server "$MAIN_URL" --json
expect_status 0
expect_stdout_line "{\"result\":\"noNewUpdates\",\"version\":\"$FIRST_VERSION\"}"
finish

# ------------------------------------------------------------ a new version

printf '{"id":"block-ads","name":"Ads, second edition","rules":[]}' >"$PUBLISHED/block-ads.json"
touch -d "2024-03-06 08:00:00 UTC" "$PUBLISHED/block-ads.json"

begin "a changed file is a new version, installed with the reload"
tamsel update --server "$MAIN_URL"
expect_status 0
expect_stdout_line "result: success"
expect_stdout_line "version: $SECOND_VERSION"
expect_installed_as_published
expect_no_strays
expect_version "$SECOND_VERSION"
finish

# ------------------------------------------------------------------- faults

snapshot_filters second
for fault in archive=server-error archive=not-found archive=reset archive=truncated archive=wrong-password \
    archive=zip-slip archive=symlink archive=oversized archive=endless metadata=not-plist metadata=server-error; do
    begin "a server with $fault leaves the installed rules alone"
    if start_server --root "$PUBLISHED" --fault "$fault" --date "Thu, 07 Mar 2024 10:00:00 GMT"; then
        tamsel update --server "$URL"
        expect_status 1
        expect_stdout_line "result: error"
        expect_stderr_contains "tamsel: update failed ("
        expect_filters_as second
        expect_no_strays
        expect_version "$SECOND_VERSION"
        [ ! -e "$FILTERS/../escaped.json" ] || problem "an entry escaped the filters folder"
    else
        problem "the filter server did not start"
    fi
    finish
done

begin "a zip bomb is refused at the limit for one file, with one line"
if start_server --root "$PUBLISHED" --fault archive=zip-bomb --date "Thu, 07 Mar 2024 10:00:00 GMT"; then
    tamsel update --server "$URL"
    expect_status 1
    expect_one_failure_line archiveTooLarge
    expect_stderr_contains "The archive's block-ads.json unpacks to more than 64 MiB"
    expect_filters_as second
    expect_no_strays
    expect_version "$SECOND_VERSION"
else
    problem "the filter server did not start"
fi
finish

# --------------------------------------------------- what an archive holds

# Another server publishing its own folder; URL as start_server leaves it.
start_other_server() {
    rm -rf "$WORK/other" && mkdir -p "$WORK/other"
    cp "$PUBLISHED"/* "$WORK/other/"
    "$@"
    start_server --root "$WORK/other" --date "Fri, 08 Mar 2024 10:00:00 GMT"
}

USERS_CONFIGURABLE='[{"id":"whitelist","name":"Whitelist","rules":[{"id":"W1","name":"example.com","content":{"trigger":{"url-filter":".*","if-domain":["example.com"]},"action":{"type":"ignore-previous-rules"}}}]}]'
printf '%s' "$USERS_CONFIGURABLE" >"$FILTERS/block-configurable.json"
snapshot_filters users

begin "a package file that does not decode refuses the whole update, with one line"
if start_other_server eval 'printf "<html>502 Bad Gateway</html>" >"$WORK/other/block-trackers.json"'; then
    tamsel update --server "$URL"
    expect_status 1
    expect_stdout_line "result: error"
    expect_one_failure_line invalidPackageFile
    expect_stderr_contains "The archive's block-trackers.json is not a valid package file: "
    expect_filters_as users
    expect_no_strays
    expect_version "$SECOND_VERSION"
else
    problem "the filter server did not start"
fi
finish

begin "an archive of the user's packages alone changes nothing and keeps the version"
if start_other_server eval 'rm "$WORK"/other/*; echo "[]" >"$WORK/other/block-configurable.json"; echo "[]" >"$WORK/other/block-custom.json"'; then
    tamsel update --server "$URL"
    expect_status 1
    expect_one_failure_line noRuleFiles
    expect_filters_as users
    expect_no_strays
    expect_version "$SECOND_VERSION"
else
    problem "the filter server did not start"
fi
finish

begin "a new rule set keeps the user's configurable packages and skips what is no rule file"
if start_other_server eval 'echo "[]" >"$WORK/other/block-configurable.json"; echo "[]" >"$WORK/other/block-custom.json"; echo junk >"$WORK/other/notes.txt"'; then
    tamsel update --server "$URL" --no-reload
    expect_status 0
    expect_stdout_line "result: success"
    cmp -s "$FILTERS/block-configurable.json" <(printf '%s' "$USERS_CONFIGURABLE") ||
        problem "the user's configurable packages changed"
    [ ! -e "$FILTERS/block-custom.json" ] || problem "the server's block-custom.json was installed"
    [ ! -e "$FILTERS/notes.txt" ] || problem "notes.txt was installed"
    expect_log_contains "Skipping notes.txt from the archive: not a file of the rule set"
    expect_no_strays
    expect_version "Fri, 08 Mar 2024 10:00:00 GMT"
else
    problem "the filter server did not start"
fi
finish

begin "an update removes what killed downloads and unpacks left"
mkdir -p "$FILTERS/../.Filters.unpacking-k1ll3d/unpacked" "$DATA/extension/tmp/cloud"
head -c 100000 /dev/zero >"$FILTERS/../.Filters.unpacking-k1ll3d/unpacked/block-ads.json"
head -c 100000 /dev/zero >"$DATA/extension/tmp/cloud/.data.zip.download-AbC123"
echo old >"$DATA/extension/tmp/cloud/data.zip"
printf '{"id":"block-ads","name":"Ads, third edition","rules":[]}' >"$PUBLISHED/block-ads.json"
touch -d "2024-03-09 08:00:00 UTC" "$PUBLISHED/block-ads.json"
tamsel update --server "$MAIN_URL" --no-reload
expect_status 0
expect_stdout_line "result: success"
expect_no_strays
[ ! -e "$FILTERS/../.Filters.unpacking-k1ll3d" ] || problem "the staging folder of a killed unpack is still there"
finish

snapshot_filters third
begin "a server that refuses connections is an error"
# Port 9 (discard) is privileged and has no listener on a test machine.
tamsel update --server "http://127.0.0.1:9" --no-reload
expect_status 1
expect_stdout_line "result: error"
expect_stderr_contains "update failed (transport)"
expect_filters_as third
finish

# ------------------------------------------------------------ bad usage

begin "filter-server needs an existing folder with files"
tamsel filter-server
expect_status 2
tamsel filter-server --root "$WORK/missing"
expect_status 2
mkdir -p "$WORK/empty"
tamsel filter-server --root "$WORK/empty"
expect_status 1
expect_stderr_contains "no files to publish"
finish

begin "filter-server refuses an unknown fault and a malformed date"
tamsel filter-server --root "$PUBLISHED" --fault archive=sideways
expect_status 2
tamsel filter-server --root "$PUBLISHED" --date yesterday
expect_status 2
finish

echo "update_cli_test: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
