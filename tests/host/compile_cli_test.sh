#!/usr/bin/env bash
# End-to-end checks of `tamsel compile`, `reload`, `extensions` and `safari` on
# the sample package files under a temporary data root: the program acts as
# the toolbar extension and the substitute Safari compiles what it writes.
#
#   bash tests/host/compile_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init compile "$@"

# The row of one package in `tamsel packages`: "<id> ... <state> <name>".
expect_row_state() {
    grep -qE -- "^$1 .* $2  " "$WORK/out" || problem "package $1 is not listed as $2"
}

# ---------------------------------------------------------------- compile

fresh_home
begin "compile writes eight files that Safari accepts, whitelisting entries last"
tamsel compile
expect_status 0
expect_stdout_lines 8
for ext in block-ads block-trackers block-annoyances block-social block-comments block-adult block-international block-custom; do
    grep -qE "^$ext: reloaded, [0-9]+ entries$" "$WORK/out" || problem "$ext was not reloaded"
done
[ "$(ls "$SAFARI_JSON" | wc -l)" -eq 8 ] || problem "expected eight Safari JSON files"
[ -f "$SAFARI_JSON/safari-custom+configurable.json" ] || problem "the custom file has the wrong name"
last_action=$(grep -o '"type" *: *"[a-z-]*"' "$SAFARI_JSON/safari-block-ads.json" | tail -1)
case "$last_action" in *ignore-previous-rules*) ;; *) problem "the ads file does not end with a whitelisting entry ($last_action)";; esac
finish

begin "extensions shows each file with its entries and the last reload"
tamsel extensions
expect_status 0
expect_stdout_lines 8
expect_stdout_contains "block-ads: enabled, $SAFARI_JSON/safari-block-ads.json ("
expect_stdout_contains "ok,"
tamsel --json extensions
expect_status 0
expect_stdout_contains '"extension":"block-custom"'
expect_stdout_contains '"result":"success"'
finish

begin "random Safari failures are retried until the reload succeeds"
tamsel safari fail-next block-ads 3 1
expect_status 0
expect_stdout_contains "block-ads: the next 1 reloads fail with code 3"
tamsel -v compile block-ads
expect_status 0
expect_stdout_contains "block-ads: reloaded,"
expect_stderr_contains 'Trying to reload "Ads" again: attempts 1/10'
finish

begin "a lasting Safari error fails the extension and the command"
tamsel safari fail-next block-social 2 1
tamsel compile block-social block-comments
expect_status 1
expect_stdout_contains "block-social: failed: "
expect_stdout_contains "block-comments: reloaded,"
finish

begin "a rule Safari's compiler refuses fails the whole list with its message"
python3 - "$FILTERS/block-custom.json" <<'PY'
import json, sys
path = sys.argv[1]
packages = json.load(open(path))
packages[0]["rules"].append({"id": "BAD-RULE", "name": "bad", "content": {"trigger": {"url-filter": "a{0,2}"}, "action": {"type": "block"}}})
json.dump(packages, open(path, "w"))
PY
tamsel compile block-custom
expect_status 1
expect_stdout_contains "block-custom: failed: Rule list compilation failed: Invalid or unsupported regular expression."
tamsel extensions
expect_stdout_contains "refused: "
finish

begin "reload leaves the files as they are"
before=$(cksum <"$SAFARI_JSON/safari-block-ads.json")
tamsel reload block-ads
expect_status 0
expect_stdout_contains "block-ads: reloaded,"
[ "$(cksum <"$SAFARI_JSON/safari-block-ads.json")" = "$before" ] || problem "reload rewrote the file"
finish

begin "set-state records the switch; bad arguments are usage errors"
tamsel safari set-state block-adult disabled
expect_status 0
tamsel extensions
expect_stdout_contains "block-adult: disabled,"
tamsel safari set-state block-adult sideways
expect_status 2
tamsel compile block-nothing
expect_status 2
expect_stderr_contains 'unknown extension "block-nothing"'
finish

harness_summary
