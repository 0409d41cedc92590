#!/usr/bin/env bash
# End-to-end checks of `tamsel packages`, `enable`, `disable`, `export` and
# `import` on the sample package files under a temporary data root.
#
#   bash tests/host/packages_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init packages "$@"

CUSTOM_ID=7B6A5C4D-3E2F-4A1B-9C8D-7E6F5A4B3C2D

# The row of one package in `tamsel packages`: "<id> ... <state> <name>".
expect_row_state() {
    grep -qE -- "^$1 .* $2  " "$WORK/out" || problem "package $1 is not listed as $2"
}

# ---------------------------------------------------------------- packages

fresh_home
begin "packages lists every package of the files, all enabled at first"
tamsel packages
expect_status 0
expect_stdout_lines 15
expect_stdout_contains "ID "
expect_row_state block-ads enabled
expect_row_state block-german enabled
expect_row_state whitelist enabled
expect_row_state "$CUSTOM_ID" enabled
grep -qE '^block-german +international +block-international +3 +3 +0  enabled' "$WORK/out" ||
    problem "block-german's row lacks its category, extension or counts"
finish

begin "packages --json describes each package on one line"
tamsel --json packages
expect_status 0
expect_stdout_lines 1
expect_stdout_contains '{"id":"block-ads","name":"Ads","category":"general","extensionType":"block-ads","rules":8,"enabledRules":8,"disabledRules":0,"enabled":true}'
expect_stdout_contains '"id":"make-https","name":"Make HTTPS-only","category":"custom","extensionType":"block-custom"'
finish

begin "packages counts the disabled rules of a package"
"$TAMSEL" --home "$DATA" defaults write --store ubiquitous DisabledRuleIDs -json \
    '{"block-german": {"'"$(grep -o '"id": *"[^"]*"' "$FILTERS/block-international.json" | sed -n 2p | sed 's/.*: *"\(.*\)"/\1/')"'": true}}'
tamsel --json packages
expect_stdout_contains '"id":"block-german","name":"German Ads","category":"international","extensionType":"block-international","rules":3,"enabledRules":2,"disabledRules":1,"enabled":true}'
finish

begin "packages follows a package file replaced after its summary was made, and a damaged summary"
tamsel --json packages
expect_stdout_contains '"id":"block-ads","name":"Ads","category":"general","extensionType":"block-ads","rules":8,'
[ -f "$FILTERS/.block-ads.json.summary" ] || problem "no summary beside block-ads.json"
python3 - "$FILTERS/block-ads.json" <<'PY'
import json, os, sys
path = sys.argv[1]
package = json.load(open(path))
package["name"] = "Ads, shorter"
package["rules"] = package["rules"][:5]
with open(path + ".new", "w") as out:
    json.dump(package, out)
os.replace(path + ".new", path)
PY
tamsel --json packages
expect_stdout_contains '"id":"block-ads","name":"Ads, shorter","category":"general","extensionType":"block-ads","rules":5,"enabledRules":5,"disabledRules":0,'
printf 'tamsel-package-summary 1\ngarbage' > "$FILTERS/.block-ads.json.summary"
tamsel --json packages
expect_stdout_contains '"id":"block-ads","name":"Ads, shorter","category":"general","extensionType":"block-ads","rules":5,"enabledRules":5,"disabledRules":0,'
finish

# ---------------------------------------------------------------- enable / disable

fresh_home
begin "disable block-ads stores the switch in the cloud store and rebuilds only the ads extension"
tamsel disable block-ads
expect_status 0
expect_stdout_contains "block-ads: disabled"
expect_stdout_contains "rebuild: block-ads"
expect_stdout_lines 2
tamsel defaults read --store ubiquitous DisabledPackageIDs
expect_stdout_contains '{"block-ads":true}'
tamsel packages
expect_row_state block-ads disabled
expect_row_state block-trackers enabled
finish

begin "enable stores an explicit false"
tamsel enable block-ads
expect_status 0
expect_stdout_contains "block-ads: enabled"
tamsel defaults read --store ubiquitous DisabledPackageIDs
expect_stdout_contains '{"block-ads":false}'
finish

begin "disabling the whitelist package rebuilds every extension"
tamsel --json disable whitelist
expect_status 0
expect_stdout_contains '{"id":"whitelist","enabled":false,"rebuild":["block-ads","block-trackers","block-annoyances","block-social","block-comments","block-adult","block-international","block-custom"],"rebuildLeftToHostApplication":false}'
finish

begin "an unknown package is a reported failure"
tamsel enable no-such-package
expect_status 1
expect_stdout_empty
expect_stderr_contains "tamsel: no package with identifier no-such-package"
finish

begin "with StorePreferencesLocally the shared defaults hold the switches"
fresh_home
"$TAMSEL" --home "$DATA" defaults write StorePreferencesLocally -bool true
tamsel disable block-social
expect_status 0
tamsel defaults read DisabledPackageIDs
expect_stdout_contains '{"block-social":true}'
tamsel defaults read --store ubiquitous DisabledPackageIDs
expect_status 1
finish

begin "the older array layout is moved on the first read"
fresh_home
"$TAMSEL" --home "$DATA" defaults write --store ubiquitous DisabledUserPreferenceForPackages -json '["block-comments"]'
tamsel packages
expect_row_state block-comments disabled
tamsel defaults read --store ubiquitous DisabledUserPreferenceForPackages
expect_status 1
tamsel defaults read DidMigrateDisabledPackageIDsFromOldArrayOnce
expect_stdout_contains 1
finish

begin "programs switching packages at the same time keep every switch"
fresh_home
pids=""
for id in block-ads block-trackers block-annoyances block-social block-comments block-adult; do
    "$TAMSEL" --home "$DATA" disable "$id" >/dev/null 2>&1 &
    pids="$pids $!"
done
for pid in $pids; do wait "$pid" || problem "a disable run failed"; done
tamsel packages
for id in block-ads block-trackers block-annoyances block-social block-comments block-adult; do
    expect_row_state "$id" disabled
done
expect_row_state block-german enabled
finish

# ---------------------------------------------------------------- export / import

fresh_home
begin "export writes the package to Documents/Rules.tmsl by default"
tamsel export block-german
expect_status 0
expect_stdout_contains "$DATA/Documents/Rules.tmsl"
[ -s "$DATA/Documents/Rules.tmsl" ] || problem "no shared file"
tamsel rules check "$DATA/Documents/Rules.tmsl"
expect_stdout_contains ": 1 package, 3 rules"
finish

begin "export --to writes where it is told; an unknown package fails"
tamsel export "$CUSTOM_ID" --to "$WORK/mine.tmsl"
expect_status 0
grep -qF "\"$CUSTOM_ID\"" "$WORK/mine.tmsl" || problem "the exported file lacks the package"
tamsel export nothing-like-it --to "$WORK/none.tmsl"
expect_status 1
[ ! -e "$WORK/none.tmsl" ] || problem "a file was written for an unknown package"
finish

begin "export --to refuses what is not a regular file and touches nothing"
mkfifo "$WORK/fifo"
echo "kept" >"$WORK/kept.txt"
ln -s "$WORK/kept.txt" "$WORK/link"
ln -s "$WORK/nowhere" "$WORK/dangling"
mkdir "$WORK/folder"
for target in fifo link dangling folder; do
    tamsel export block-ads --to "$WORK/$target"
    expect_status 1
    expect_stdout_empty
    expect_stderr_lines 1
    expect_stderr_contains "tamsel: can't export block-ads to $WORK/$target: not a regular file"
done
[ -p "$WORK/fifo" ] || problem "the FIFO was replaced"
[ -L "$WORK/link" ] && [ -L "$WORK/dangling" ] || problem "a link was replaced"
[ "$(cat "$WORK/kept.txt")" = kept ] || problem "the file behind the link was written"
[ ! -e "$WORK/nowhere" ] || problem "a file was made where the dangling link points"
[ -z "$(ls -A "$WORK/folder")" ] || problem "something was written into the folder"
ls -A "$WORK" | grep -q '\.tmp-' && problem "a temporary file was left"
tamsel export block-ads --to "$WORK/kept.txt"
expect_status 0
grep -qF '"block-ads"' "$WORK/kept.txt" || problem "a regular file was not replaced"
finish

begin "import adds a shared package as a custom package and saves the custom file"
sed "s/$CUSTOM_ID/shared-list/; s/My Reading List Rules/Shared List/" "$WORK/mine.tmsl" >"$WORK/shared.tmsl"
tamsel import "$WORK/shared.tmsl"
expect_status 0
expect_stdout_contains "imported 1 package into block-custom.json"
expect_stdout_contains "rebuild: block-custom"
grep -qF '"shared-list"' "$FILTERS/block-custom.json" || problem "block-custom.json lacks the imported package"
grep -qF "\"$CUSTOM_ID\"" "$FILTERS/block-custom.json" || problem "block-custom.json lost the existing package"
tamsel packages
expect_row_state shared-list enabled
finish

begin "import refuses a configurable identifier"
tamsel export whitelist --to "$WORK/whitelist.tmsl"
cp "$FILTERS/block-custom.json" "$WORK/custom-before.json"
tamsel -v import "$WORK/whitelist.tmsl"
expect_status 1
expect_stdout_empty
expect_stderr_contains "tamsel: $WORK/whitelist.tmsl: nothing imported: \"whitelist\" is the identifier of a configurable package"
cmp -s "$FILTERS/block-custom.json" "$WORK/custom-before.json" || problem "the custom file changed"
finish

# shared_file NAME PACKAGES...: a shared file of packages, each given as
# "ID:RULE_ID,RULE_ID,...", every rule a plain blocking rule.
shared_file() {
    local name=$1 first=1 package id rules rule comma
    shift
    {
        printf '['
        for package in "$@"; do
            id=${package%%:*}
            rules=${package#*:}
            [ $first -eq 1 ] || printf ','
            first=0
            printf '{"id":"%s","name":"Shared","rules":[' "$id"
            comma=""
            for rule in ${rules//,/ }; do
                [ "$rule" = "-" ] && rule=""
                printf '%s{"id":"%s","name":"r","content":{"trigger":{"url-filter":"ads"},"action":{"type":"block"}}}' \
                    "$comma" "$rule"
                comma=","
            done
            printf ']}'
        done
        printf ']'
    } >"$WORK/$name"
}

begin "import refuses built-in identifiers, missing and repeated identifiers, and then imports nothing"
cp "$FILTERS/block-custom.json" "$WORK/custom-before.json"
# The good package first: it must not go in either.
while IFS='|' read -r bad reason; do
    shared_file refused.tmsl "fine-list:r1" "$bad"
    tamsel import "$WORK/refused.tmsl"
    expect_status 1
    expect_stdout_empty
    expect_stderr_lines 1
    expect_stderr_contains "tamsel: $WORK/refused.tmsl: nothing imported: $reason"
done <<CASES
block-ads:r1|"block-ads" is the identifier of a built-in package
block-international:r1|"block-international" is the identifier of a built-in package
block-german:r1|"block-german" is the identifier of a built-in package
block-custom:r1|"block-custom" is the identifier of a built-in package
make-https:r1|"make-https" is the identifier of a configurable package
:r1|package 2 has no identifier
dup-list:r1,-|package "dup-list": rule 2 has no identifier
dup-list:r1,r2,r1|package "dup-list": rule "r1" occurs more than once
CASES
cmp -s "$FILTERS/block-custom.json" "$WORK/custom-before.json" || problem "the custom file changed"
tamsel packages
expect_stdout_lacks "fine-list"
[ "$(grep -c '^block-ads ' "$WORK/out")" -eq 1 ] || problem "block-ads is listed more than once"
tamsel disable block-ads
expect_status 0
expect_stdout_line "rebuild: block-ads"
finish

begin "import of a broken or missing file fails with the reason"
printf '[{"id": "x", "name": ' >"$WORK/broken.tmsl"
tamsel import "$WORK/broken.tmsl"
expect_status 1
expect_stdout_empty
expect_stderr_contains "tamsel: $WORK/broken.tmsl: "
tamsel import "$WORK/missing.tmsl"
expect_status 1
expect_stderr_contains "tamsel: $WORK/missing.tmsl: no such file"
finish

harness_summary
