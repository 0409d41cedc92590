#!/usr/bin/env bash
# End-to-end checks of `tamsel whitelist`, `unwhitelist`, `https`, `unhttps`,
# `pause`, `resume` and `site` on the sample package files under a temporary
# data root, against the substitute Safari.
#
#   bash tests/host/site_cli_test.sh <path-to-tamsel> <source-dir>
set -u

source "$(dirname "$0")/harness/cli_harness.bash"
harness_init site "$@"

CONFIGURABLE="$FILTERS/block-configurable.json"
ALL="block-ads block-trackers block-annoyances block-social block-comments block-adult block-international block-custom"

expect_unchanged() { cmp -s "$1" "$2" || problem "$(basename "$1") changed"; }
# Whether the Safari JSON file of an extension whitelists a domain.
safari_file() {
    case $1 in
        block-custom) echo "$SAFARI_JSON/safari-custom+configurable.json" ;;
        *) echo "$SAFARI_JSON/safari-$1.json" ;;
    esac
}
expect_whitelisted_in_file() {
    grep -qF "\"$2\"" "$(safari_file "$1")" 2>/dev/null || problem "$1's Safari file does not list $2"
}
expect_not_in_file() {
    ! grep -qF "\"$2\"" "$(safari_file "$1")" 2>/dev/null || problem "$1's Safari file still lists $2"
}

# ---------------------------------------------------------------- site

fresh_home
begin "site shows the sample whitelist rule and its extensions"
tamsel site GitHub.com
expect_status 0
expect_stdout_line "domain: github.com"
expect_stdout_line "whitelisted: yes, in block-ads block-social (rule A2B3C4D5-E6F7-4081-92A3-B4C5D6E7F809)"
expect_stdout_line "forced HTTPS: no"
expect_stdout_line "paused: no"
finish

begin "site --json covers subdomains of a wildcard entry and forced HTTPS"
tamsel site en.wikipedia.org --json
expect_status 0
expect_stdout_line '{"domain":"en.wikipedia.org","whitelisted":true,"whitelistedIn":["block-ads","block-trackers","block-annoyances","block-social","block-comments","block-adult","block-international","block-custom"],"whitelistRule":"6F1C2A9E-3B4D-4E5F-8A7B-1C2D3E4F5A6B","whitelistRuleEnabled":true,"whitelistPackageEnabled":true,"forcedHttps":false,"httpsRule":null,"makeHttpsPackageEnabled":true,"paused":false,"minutesLeft":0}'
tamsel --json site neverssl.com
expect_stdout_contains '"whitelisted":false,"whitelistedIn":[],"whitelistRule":null'
expect_stdout_contains '"forcedHttps":true,"httpsRule":"3C4D5E6F-7A8B-4C9D-8E0F-1A2B3C4D5E6F"'
finish

# ---------------------------------------------------------------- whitelist

fresh_home
begin "whitelisting a new site rebuilds and reloads every extension"
tamsel whitelist Example.COM
expect_status 0
expect_stdout_line "whitelist example.com: created"
expect_stdout_line "in: all extensions"
expect_stdout_line "rebuilt: $ALL"
expect_stdout_line "reloaded: $ALL"
grep -qF '"example.com"' "$CONFIGURABLE" || problem "the package file lacks the rule"
for extension in $ALL; do expect_whitelisted_in_file "$extension" example.com; done
tamsel defaults read ActionExtensionCreatedRuleKey
expect_stdout_contains 1
finish

begin "whitelisting in chosen extensions rewrites the site's rule"
tamsel whitelist example.com --only block-ads,block-social,block-ads
expect_status 0
expect_stdout_line "whitelist example.com: updated"
expect_stdout_line "in: block-ads block-social"
expect_whitelisted_in_file block-ads example.com
expect_whitelisted_in_file block-social example.com
expect_not_in_file block-trackers example.com
tamsel site example.com
expect_stdout_contains "whitelisted: yes, in block-ads block-social (rule "
finish

begin "whitelisting again with the same extensions changes nothing"
cp "$CONFIGURABLE" "$WORK/before.json"
tamsel whitelist example.com --only block-social,block-ads
expect_status 0
expect_stdout_line "whitelist example.com: unchanged"
expect_stdout_line "rebuilt: none"
expect_stdout_line "reloaded: none"
expect_unchanged "$CONFIGURABLE" "$WORK/before.json"
finish

begin "an unknown extension in --only is a usage error"
tamsel whitelist example.com --only block-ads,block-everything
expect_status 2
expect_stderr_contains 'tamsel: --only: unknown extension "block-everything"'
finish

begin "international hosts are stored as punycode"
tamsel whitelist Bücher.de
expect_status 0
expect_stdout_line "whitelist xn--bcher-kva.de: created"
expect_whitelisted_in_file block-ads xn--bcher-kva.de
tamsel site bücher.de
expect_stdout_contains "whitelisted: yes, in all extensions"
finish

fresh_home
begin "invalid domains are refused and nothing is written"
# The first use compiles every extension; nothing after it may write.
"$TAMSEL" --home "$DATA" extensions >/dev/null 2>&1
cp "$CONFIGURABLE" "$WORK/before.json"
touch "$WORK/stamp"
for host in 192.168.1.1 '[::1]' a.b/c intranet '*.example.com' example.com. '☃.net' 'exa…mple.com'; do
    tamsel whitelist "$host"
    expect_status 1
    expect_stdout_empty
    expect_stderr_lines 1
    expect_stderr_contains "tamsel: invalid domain \"$host\""
    tamsel https "$host"
    expect_status 1
    expect_stderr_lines 1
done
expect_log_contains "[error] [Popover] Can't save rule: domain invalid"
tamsel unwhitelist 10.0.0.1
expect_status 1
expect_log_contains "[error] [Popover] Can't remove rule: domain invalid"
tamsel -v site 10.0.0.1
expect_status 1
expect_stderr_contains 'tamsel: invalid domain "10.0.0.1"'
tamsel -v whitelist 10.0.0.1
expect_stderr_contains "[error] [Popover] Can't save rule: domain invalid"
expect_unchanged "$CONFIGURABLE" "$WORK/before.json"
[ -z "$(find "$SAFARI_JSON" -newer "$WORK/stamp")" ] || problem "Safari JSON files were written"
finish

begin "hosts that are no DNS names are refused by every command, in one line, and nothing is written"
cp "$CONFIGURABLE" "$WORK/before.json"
touch "$WORK/stamp"
label63=$(printf '%63s' '' | tr ' ' a)
name254="$label63.$label63.$label63.$(printf '%58s' '' | tr ' ' b).com"
# The host (printf %b escapes) and how the failure line shows it.
while IFS='|' read -r host shown; do
    host=$(printf '%b.' "$host")
    host=${host%.}  # the dot keeps a trailing newline from being cut off
    for command in whitelist unwhitelist https unhttps site; do
        tamsel "$command" "$host"
        expect_status 1
        expect_stdout_empty
        [ "$(grep -c '^tamsel:' "$WORK/err")" -eq 1 ] || problem "$command: not one failure line for $shown"
        expect_stderr_contains "tamsel: invalid domain \"$shown\": "
    done
done <<HOSTS
a\\nb.com|a\\nb.com
example.com\\n|example.com\\n
exa\\tmple.com|exa\\tmple.com
exa mple.com|exa mple.com
 example.com| example.com
exa\\001mple.com|exa\\x01mple.com
bücher .de|bücher .de
a..b.com|a..b.com
*a..b.com|*a..b.com
$label63$label63.com|$label63$label63.com
$label63.b.$label63$label63.com|$label63.b.$label63$label63.com
$name254|$name254
HOSTS
expect_unchanged "$CONFIGURABLE" "$WORK/before.json"
[ -z "$(find "$SAFARI_JSON" -newer "$WORK/stamp")" ] || problem "Safari JSON files were written"
finish

begin "a switched-off whitelist package is only switched on when the flag says so"
tamsel disable whitelist
cp "$CONFIGURABLE" "$WORK/before.json"
tamsel whitelist example.net
expect_status 1
expect_stdout_empty
expect_stderr_contains 'tamsel: Turn On "Whitelist"? This list is turned off'
expect_stderr_contains '(--enable-package answers "Turn On")'
expect_unchanged "$CONFIGURABLE" "$WORK/before.json"
tamsel whitelist example.net --enable-package
expect_status 0
expect_stdout_line "whitelist example.net: created"
expect_stdout_line "enabled package: whitelist"
expect_stdout_line "reloaded: $ALL"
tamsel --json site example.net
expect_stdout_contains '"whitelisted":true'
expect_stdout_contains '"whitelistPackageEnabled":true'
finish

begin "confirming for a site that is already whitelisted still rebuilds"
tamsel disable whitelist
tamsel whitelist github.com --only block-ads,block-social --enable-package
expect_status 0
expect_stdout_line "whitelist github.com: unchanged"
expect_stdout_line "enabled package: whitelist"
expect_stdout_line "rebuilt: $ALL"
expect_whitelisted_in_file block-ads github.com
finish

# ---------------------------------------------------------------- unwhitelist

fresh_home
begin "unwhitelisting the last domain of a rule deletes the rule"
tamsel unwhitelist github.com
expect_status 0
expect_stdout_line "unwhitelist github.com: deleted"
expect_stdout_line "rebuilt: $ALL"
! grep -qF 'A2B3C4D5-E6F7-4081-92A3-B4C5D6E7F809' "$CONFIGURABLE" || problem "the rule is still in the package file"
tamsel site github.com
expect_stdout_line "whitelisted: no"
finish

begin "unwhitelisting a site that is not whitelisted changes nothing and says so"
cp "$CONFIGURABLE" "$WORK/before.json"
tamsel unwhitelist github.com
expect_status 0
expect_stderr_empty
expect_stdout_line "unwhitelist github.com: unchanged"
expect_stdout_line "github.com is not whitelisted"
expect_stdout_line "rebuilt: none"
expect_unchanged "$CONFIGURABLE" "$WORK/before.json"
finish

begin "unwhitelisting a subdomain takes out the wildcard entry that covers it"
tamsel unwhitelist en.wikipedia.org
expect_status 0
expect_stdout_line "unwhitelist en.wikipedia.org: deleted"
tamsel site wikipedia.org
expect_stdout_line "whitelisted: no"
finish

# ---------------------------------------------------------------- the host application

fresh_home
"$TAMSEL" --home "$DATA" extensions >/dev/null 2>&1
begin "while the host application runs, a change is saved and its rebuild left to it"
# The host application holds its lock file while it runs.
# (exec: the process that holds the lock is the one killed below.)
(exec 9>"$DATA/group/host-application.lock" && flock -x 9 && exec sleep 60) >/dev/null 2>&1 &
holder=$!
while flock -n -s "$DATA/group/host-application.lock" true; do sleep 0.05; done
touch "$WORK/stamp"
tamsel whitelist example.com
expect_status 0
expect_stderr_empty
expect_stdout_line "whitelist example.com: created"
expect_stdout_line "rebuilt: left to the host application, which is running"
grep -qF '"example.com"' "$CONFIGURABLE" || problem "the package file lacks the rule"
tamsel disable block-ads
expect_status 0
expect_stdout_line "rebuild: left to the host application, which is running"
[ -z "$(find "$SAFARI_JSON" -newer "$WORK/stamp")" ] || problem "Safari JSON files were written"
kill "$holder" 2>/dev/null
wait "$holder" 2>/dev/null
finish

# ---------------------------------------------------------------- https / unhttps

fresh_home
begin "forcing HTTPS rebuilds only the custom extension"
tamsel https Example.org
expect_status 0
expect_stdout_line "https example.org: created"
expect_stdout_line "rebuilt: block-custom"
expect_stdout_line "reloaded: block-custom"
grep -qF '"example.org"' "$(safari_file block-custom)" || problem "the custom Safari file lacks the rule"
tamsel site example.org
expect_stdout_contains "forced HTTPS: yes (rule "
tamsel https example.org
expect_stdout_line "https example.org: unchanged"
[ "$(grep -c '"example.org"' "$CONFIGURABLE")" -eq 1 ] || problem "a second rule was added"
finish

begin "unforcing deletes the rule; unforcing again changes nothing"
tamsel unhttps example.org
expect_status 0
expect_stdout_line "unhttps example.org: deleted"
expect_stdout_line "rebuilt: block-custom"
tamsel unhttps example.org
expect_status 0
expect_stderr_empty
expect_stdout_line "unhttps example.org: unchanged"
expect_stdout_line "HTTPS is not forced for example.org"
expect_stdout_line "reloaded: none"
expect_log_contains "Can't unforce https: domain or rule doesn't exist"
finish

begin "a switched-off make-https package is reported before the domain"
tamsel disable make-https
cp "$CONFIGURABLE" "$WORK/before.json"
tamsel https 1.2.3.4
expect_status 1
expect_stderr_contains 'tamsel: Turn On "Make HTTPS"?'
! grep -qF "invalid domain" "$WORK/err" || problem "the domain was checked first"
tamsel https 1.2.3.4 --enable-package
expect_status 1
expect_stderr_contains 'tamsel: invalid domain "1.2.3.4"'
tamsel --json packages
grep -qF '"id":"make-https","name":"Make HTTPS-only","category":"custom","extensionType":"block-custom","rules":1,"enabledRules":1,"disabledRules":0,"enabled":false}' "$WORK/out" ||
    problem "an invalid domain switched the package on"
tamsel https example.info --enable-package
expect_status 0
expect_stdout_line "https example.info: created"
expect_stdout_line "enabled package: make-https"
expect_stdout_line "rebuilt: block-custom"
finish

begin "a failed reload is reported and the rule is kept"
"$TAMSEL" --home "$DATA" safari fail-next block-custom 6 1 >/dev/null 2>&1
tamsel https failing.example
expect_status 1
expect_stdout_contains "failed: block-custom: "
expect_stderr_contains "tamsel: saved, but rebuilding failed: "
grep -qF '"failing.example"' "$CONFIGURABLE" || problem "the rule was not kept"
finish

# ---------------------------------------------------------------- pause / resume

rm -rf "$DATA"
begin "pausing on a fresh data root works: its first use compiled every extension"
tamsel pause
expect_status 0
expect_stderr_empty
expect_stdout_line "paused for 60 minutes"
expect_stdout_line "reloaded: $ALL"
tamsel defaults read blocking-paused-status
expect_stdout_contains 1
finish

fresh_home
begin "pause sets the shared keys and reloads every extension without rebuilding"
tamsel pause
expect_status 0
expect_stdout_line "paused for 60 minutes"
expect_stdout_line "rebuilt: none"
expect_stdout_line "reloaded: $ALL"
tamsel defaults read blocking-paused-status
expect_stdout_contains 1
tamsel defaults read blocking-paused-date
expect_status 0
tamsel site example.com
expect_stdout_line "paused: yes, 60 minutes left"
finish

begin "resume removes the pause date"
tamsel resume
expect_status 0
expect_stdout_line "resumed"
expect_stdout_line "reloaded: $ALL"
tamsel defaults read blocking-paused-status
expect_stdout_contains 0
tamsel defaults read blocking-paused-date
expect_status 1
finish

begin "a pause whose hour is over ends when the site is shown"
"$TAMSEL" --home "$DATA" defaults write blocking-paused-status -bool true
"$TAMSEL" --home "$DATA" defaults write blocking-paused-date -date "$(date -u -d '61 minutes ago' +%Y-%m-%dT%H:%M:%SZ)"
tamsel site example.com
expect_status 0
expect_stdout_line "paused: no (the hour was over: the pause ended)"
tamsel defaults read blocking-paused-date
expect_status 1
tamsel site example.com
expect_stdout_line "paused: no"
finish

begin "a pause with 59 minutes gone shows one minute left"
"$TAMSEL" --home "$DATA" defaults write blocking-paused-status -bool true
"$TAMSEL" --home "$DATA" defaults write blocking-paused-date -date "$(date -u -d '59 minutes ago' +%Y-%m-%dT%H:%M:%SZ)"
tamsel --json site example.com
expect_stdout_contains '"paused":true,"minutesLeft":1}'
finish

harness_summary
