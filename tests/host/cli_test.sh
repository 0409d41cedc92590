#!/usr/bin/env bash
# End-to-end checks of the tamsel program: exit statuses, what goes to which
# stream, and round trips through real files under a temporary data root.
#
#   bash tests/host/cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init cli "$@"

# A failure of one input: status 1, nothing on stdout, one line on stderr
# that names the input and says why.
expect_one_failure() {
    local path=$1 reason=$2
    expect_status 1
    expect_stdout_empty
    expect_stderr_lines 1
    expect_stderr_contains "FAIL $path: "
    expect_stderr_contains "$reason"
}

# A usage error: status 2 and exactly one line on stderr.
expect_usage_error() {
    expect_status 2
    expect_stderr_lines 1
    expect_stdout_empty
}

# ---------------------------------------------------------------- rules check

begin "rules check accepts every sample package file"
tamsel rules check "$SAMPLES"/*.json
expect_status 0
expect_stderr_empty
expect_stdout_lines 9
expect_stdout_contains "OK $SAMPLES/block-ads.json: 1 package, "
expect_stdout_contains "OK $SAMPLES/block-international.json: 2 packages, "
expect_stdout_contains "OK $SAMPLES/block-configurable.json: 5 packages, "
finish

begin "sample package files hold only entries that Safari loads"
tamsel rules check --safari "$SAMPLES"/*.json
expect_status 0
expect_stderr_empty
finish

begin "rules check --json describes every file"
tamsel --json rules check "$SAMPLES/block-ads.json" "$WORK/nowhere.json"
expect_status 1
expect_stdout_lines 1
expect_stdout_contains "{\"path\":\"$SAMPLES/block-ads.json\",\"ok\":true,\"packages\":1,"
expect_stdout_contains "{\"path\":\"$WORK/nowhere.json\",\"ok\":false,\"packages\":0,\"rules\":0,\"error\":\"no such file\"}"
expect_stderr_lines 1
finish

printf '{"id": "block-ads", "name": "Ads", "rules": [' >"$WORK/malformed.json"
begin "malformed JSON fails with one line naming the file"
tamsel rules check "$WORK/malformed.json"
expect_one_failure "$WORK/malformed.json" "JSON"
finish

head -c 300 "$SAMPLES/block-trackers.json" >"$WORK/truncated.json"
begin "a truncated package file fails with one line"
tamsel rules check "$WORK/truncated.json"
expect_one_failure "$WORK/truncated.json" ""
finish

printf '{"id": "block-ads", "name": "Ads \xff\xfe", "rules": []}' >"$WORK/latin1.json"
begin "non-UTF-8 bytes fail with one line"
tamsel rules check "$WORK/latin1.json"
expect_one_failure "$WORK/latin1.json" "UTF-8"
finish

begin "a missing file fails with one line"
tamsel rules check "$WORK/missing.json"
expect_one_failure "$WORK/missing.json" "no such file"
finish

begin "a directory fails with one line"
tamsel rules check "$WORK"
expect_one_failure "$WORK" "is a directory"
finish

: >"$WORK/empty.json"
begin "an empty file fails with one line"
tamsel rules check "$WORK/empty.json"
expect_one_failure "$WORK/empty.json" "is empty"
finish

begin "a file over the size limit is refused before it is read"
tamsel rules check --max-size 100 "$SAMPLES/block-ads.json"
expect_one_failure "$SAMPLES/block-ads.json" "more than the limit of 100"
finish

cat >"$WORK/unknown-type.json" <<'EOF'
[{"id": "x", "name": "X", "rules": [{"id": "r", "name": "R", "content": {
  "trigger": {"url-filter": "^https?://ads\\.example\\.com/", "resource-type": ["stylesheet"]},
  "action": {"type": "block"}}}]}]
EOF
begin "an unknown raw string fails and says where"
tamsel rules check "$WORK/unknown-type.json"
expect_one_failure "$WORK/unknown-type.json" "stylesheet"
finish

cat >"$WORK/no-content.json" <<'EOF'
{"id": "x", "name": "X", "rules": [{"id": "r", "name": "R"}]}
EOF
begin "a rule without content fails its package"
tamsel rules check "$WORK/no-content.json"
expect_one_failure "$WORK/no-content.json" "content"
finish

cat >"$WORK/disjunction.json" <<'EOF'
{"id": "x", "name": "X", "rules": [{"id": "r7", "name": "R", "content": {
  "trigger": {"url-filter": "ads|tracking"}, "action": {"type": "block"}}}]}
EOF
begin "--safari refuses a url-filter outside WebKit's subset and names the rule"
tamsel rules check "$WORK/disjunction.json"
expect_status 0
tamsel rules check --safari "$WORK/disjunction.json"
expect_one_failure "$WORK/disjunction.json" "rule \"r7\""
finish

begin "good and bad files together: each reported, status 1"
tamsel rules check "$SAMPLES/block-social.json" "$WORK/malformed.json" "$SAMPLES/block-custom.json"
expect_status 1
expect_stdout_lines 2
expect_stderr_lines 1
expect_stderr_contains "FAIL $WORK/malformed.json: "
finish

# ---------------------------------------------------------------- rules print

begin "rules print keeps an array an array and it checks again"
tamsel rules print "$SAMPLES/block-international.json"
expect_status 0
expect_stderr_empty
cp "$WORK/out" "$WORK/printed-array.json"
[ "$(head -c 1 "$WORK/printed-array.json")" = "[" ] || problem "printed list does not start with ["
tamsel rules check "$WORK/printed-array.json"
expect_stdout "OK $WORK/printed-array.json: 2 packages, 6 rules"
finish

begin "rules print keeps a single package single"
tamsel rules print "$SAMPLES/block-ads.json"
expect_status 0
cp "$WORK/out" "$WORK/printed-single.json"
[ "$(head -c 1 "$WORK/printed-single.json")" = "{" ] || problem "printed package does not start with {"
finish

begin "printing printed output changes nothing"
for file in "$SAMPLES"/*.json; do
    "$TAMSEL" --home "$DATA" rules print "$file" >"$WORK/once.json" 2>>"$WORK/err"
    "$TAMSEL" --home "$DATA" rules print "$WORK/once.json" >"$WORK/twice.json" 2>>"$WORK/err"
    cmp -s "$WORK/once.json" "$WORK/twice.json" || problem "$(basename "$file") changed on the second print"
done
: >"$WORK/out"
status=0
expect_stderr_empty
finish

begin "rules print | rules check - (standard input)"
"$TAMSEL" rules print "$SAMPLES/block-configurable.json" | "$TAMSEL" rules check - >"$WORK/out" 2>"$WORK/err"
status=$?
expect_status 0
expect_stdout "OK -: 5 packages, 6 rules"
finish

begin "rules print of a bad file: status 1, one line, no output"
tamsel rules print "$WORK/no-content.json"
expect_status 1
expect_stdout_empty
expect_stderr_lines 1
expect_stderr_contains "$WORK/no-content.json"
finish

# ---------------------------------------------------------------- defaults

# write_and_read TYPE VALUE EXPECTED [STORE]
write_and_read() {
    local type=$1 value=$2 expected=$3 store=${4:-shared}
    begin "defaults write $type $value reads back as $expected ($store)"
    tamsel defaults write --store "$store" "key$type" "$type" "$value"
    expect_status 0
    expect_stderr_empty
    tamsel defaults read --store "$store" "key$type"
    expect_status 0
    expect_stdout "$expected"
    finish
}

write_and_read -bool true 1
write_and_read -bool NO 0
write_and_read -bool yes 1
write_and_read -bool 0 0
write_and_read -int -42 -42
write_and_read -int 9223372036854775807 9223372036854775807
write_and_read -float 2.5 2.5
write_and_read -float -0.125 -0.125
write_and_read -string "two words, one value" "two words, one value"
write_and_read -string "-looks-like-a-flag" "-looks-like-a-flag"
write_and_read -date 2024-03-05T12:34:56Z 2024-03-05T12:34:56Z
write_and_read -date "2024-03-05T14:34:56.250+02:00" 2024-03-05T12:34:56.250Z
write_and_read -date 9999-12-31T23:59:59Z 9999-12-31T23:59:59Z
write_and_read -date 1900-01-01T00:00:00Z 1900-01-01T00:00:00Z
write_and_read -json '["block-ads", 2, true, 1.5]' '["block-ads",2,true,1.5]'
write_and_read -json '{"block-ads": {"r1": true}, "n": []}' '{"block-ads":{"r1":true},"n":[]}'
write_and_read -bool true 1 standard
write_and_read -json '{"type":"whitelist","domain":"example.com","enabled":true}' \
    '{"domain":"example.com","enabled":true,"type":"whitelist"}' ubiquitous

begin "stores are separate"
tamsel defaults write --store standard onlyStandard -int 1
tamsel defaults read --store shared onlyStandard
expect_status 1
expect_stderr_lines 1
expect_stderr_contains "onlyStandard"
finish

begin "--json read prints the value as JSON"
tamsel --json defaults read key-string
expect_status 0
expect_stdout '"-looks-like-a-flag"'
tamsel defaults read key-bool --json
expect_stdout "false"
finish

begin "defaults read without a key prints the whole store as JSON"
tamsel defaults read --store standard
expect_status 0
expect_stdout '{"key-bool":true,"onlyStandard":1}'
finish

begin "a missing key: status 1 and one line"
tamsel defaults read neverWritten
expect_status 1
expect_stdout_empty
expect_stderr_lines 1
expect_stderr_contains "neverWritten"
finish

begin "defaults delete removes the key; deleting it again fails"
tamsel defaults delete key-int
expect_status 0
tamsel defaults read key-int
expect_status 1
tamsel defaults delete key-int
expect_status 1
expect_stderr_lines 1
finish

begin "a value written by one run is read by the next, under TAMSEL_HOME too"
TAMSEL_HOME="$DATA" "$TAMSEL" defaults write fromEnvironment -string here >"$WORK/out" 2>"$WORK/err"
tamsel defaults read fromEnvironment
expect_status 0
expect_stdout "here"
[ -d "$DATA/group" ] || problem "no group container under the data root"
finish

# repeat TEXT COUNT: TEXT COUNT times over.
repeat() { printf "%${2}s" '' | sed "s/ /$1/g"; }

begin "JSON nested deeper than 256 levels is refused with one line and stores nothing"
# As deep as one argument can be (the kernel limits one to 128 KiB).
tamsel defaults write deepKey -json "$(repeat '[' 60000)$(repeat ']' 60000)"
expect_status 2
expect_stdout_empty
expect_stderr_lines 1
expect_stderr_contains "nested deeper than 256 levels"
tamsel defaults read deepKey
expect_status 1
expect_stderr_contains "has no key deepKey"
tamsel defaults write deepKey -json "$(repeat '[' 256)$(repeat ']' 256)"
expect_status 0
tamsel defaults read deepKey
expect_status 0
expect_stdout "$(repeat '[' 256)$(repeat ']' 256)"
finish

begin "a stored value nested deeper than the limit reads as a clear error"
# Another program's bytes: 100,000 arrays, one inside the other.
python3 - "$DATA"/group/*.sqlite <<'PY'
import sqlite3, struct, sys
value = (b"a" + struct.pack("<Q", 1)) * 100000 + b"b\x01"
with sqlite3.connect(sys.argv[1]) as db:
    db.execute("INSERT OR REPLACE INTO entries(key, value, version) VALUES('foreign', ?, 1000000)", (value,))
PY
tamsel defaults read foreign
expect_status 1
expect_stdout_empty
expect_stderr_contains "tamsel: the shared store's value for key foreign is unreadable: nested deeper than 256 levels"
tamsel defaults read
expect_status 0
expect_stdout_lacks "foreign"
finish

# ---------------------------------------------------------------- bad usage

usage_error() {
    begin "bad usage: tamsel $*"
    tamsel "$@"
    expect_usage_error
    finish
}

usage_error
usage_error frobnicate
usage_error rules
usage_error rules chek "$SAMPLES/block-ads.json"
usage_error rules check
usage_error rules print
usage_error rules check --max-size 0 "$SAMPLES/block-ads.json"
usage_error defaults write
usage_error defaults write someKey
usage_error defaults write someKey -bool
usage_error defaults write someKey -bool maybe
usage_error defaults write someKey -int 1.5
usage_error defaults write someKey -int 99999999999999999999
usage_error defaults write someKey -float abc
usage_error defaults write someKey -date yesterday
usage_error defaults write someKey -json '{"unclosed": '
usage_error defaults write someKey -json null
usage_error defaults write someKey -colour red
usage_error defaults write someKey -bool true extra
usage_error defaults read --store icloud someKey
usage_error defaults delete
usage_error --home

begin "a refused write stores nothing"
tamsel defaults read someKey
expect_status 1
finish

begin "--help exits 0, says what the program is for and lists the commands"
tamsel --help
expect_status 0
head -1 "$WORK/out" | grep -q "^Tamsel content blocker: " || problem "the first line does not say what the program is"
expect_stdout_contains "rules"
expect_stdout_contains "defaults"
finish

begin "--version prints the program's name and version"
tamsel --version
expect_status 0
expect_stderr_empty
grep -qxE "tamsel [0-9]+\.[0-9]+\.[0-9]+" "$WORK/out" || problem "stdout was '$(cat "$WORK/out")'"
finish

begin "-v still exits 0 on success"
tamsel -v rules check "$SAMPLES/block-ads.json"
expect_status 0
expect_stdout "OK $SAMPLES/block-ads.json: 1 package, 8 rules"
finish

harness_summary
