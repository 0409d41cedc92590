# The frame shared by the end-to-end scripts of the tamsel program. A script
# sources this file, then calls
#
#     harness_init NAME "$@"      # checks the two arguments, makes $WORK
#
# and writes its checks as
#
#     begin "what is checked"; tamsel ARGS...; expect_status 0; ...; finish
#
# ending with `harness_summary`. After harness_init: $TAMSEL (the program),
# $SOURCE (the source folder), $SAMPLES (the sample package files), $WORK (a
# temporary folder removed at exit), $DATA (the data root of every run) and
# $FILTERS (its filters folder); the product's log lines are in
# $DATA/$LOG_FILE_NAME. A script that must clean up more defines
# harness_cleanup before harness_init; it runs at exit first.

harness_init() {
    local name=$1
    shift
    if [ $# -ne 2 ]; then
        echo "usage: $0 <path-to-tamsel> <source-dir>" >&2
        exit 2
    fi
    TAMSEL=$1
    SOURCE=$2
    SAMPLES=$SOURCE/resources/packages
    WORK=$(mktemp -d "${TMPDIR:-/tmp}/tamsel-$name-XXXXXX")
    trap 'harness_exit' EXIT
    DATA=$WORK/home
    FILTERS="$DATA/group/Library/Application Support/Filters"
    SAFARI_JSON="$DATA/group/Library/Application Support/Safari JSON"
    passed=0
    failed=0
    current=""
    problems=""
}

harness_exit() {
    if declare -F harness_cleanup >/dev/null; then harness_cleanup; fi
    rm -rf "$WORK"
}

# A fresh data root whose filters folder holds the sample package files.
fresh_home() {
    rm -rf "$DATA"
    mkdir -p "$FILTERS"
    cp "$SAMPLES"/*.json "$FILTERS/"
}

# tamsel ARGS...: runs the program on the test's data root; leaves the exit
# status in $status, standard output in $WORK/out, standard error in $WORK/err.
tamsel() {
    "$TAMSEL" --home "$DATA" "$@" >"$WORK/out" 2>"$WORK/err"
    status=$?
}

begin() {
    current=$1
    problems=""
}

problem() { problems="$problems
    $1"; }

finish() {
    if [ -z "$problems" ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAILED: $current$problems"
        echo "    --- stdout:"; sed 's/^/    | /' "$WORK/out" | head -20
        # The end of standard error: the reason comes after any progress lines.
        echo "    --- stderr:"; sed 's/^/    | /' "$WORK/err" | tail -20
    fi
}

# Prints the counts; the script's status is whether every check passed.
harness_summary() {
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}

expect_status() { [ "$status" -eq "$1" ] || problem "exit status $status, expected $1"; }
expect_stdout() {
    local actual
    actual=$(cat "$WORK/out")
    [ "$actual" = "$1" ] || problem "stdout was '$actual', expected '$1'"
}
expect_stdout_empty() { [ ! -s "$WORK/out" ] || problem "stdout was not empty"; }
expect_stderr_empty() { [ ! -s "$WORK/err" ] || problem "stderr was not empty"; }
expect_stdout_lines() {
    local count
    count=$(wc -l <"$WORK/out")
    [ "$count" -eq "$1" ] || problem "stdout had $count lines, expected $1"
}
expect_stderr_lines() {
    local count
    count=$(wc -l <"$WORK/err")
    [ "$count" -eq "$1" ] || problem "stderr had $count lines, expected $1"
}
expect_stdout_contains() { grep -qF -- "$1" "$WORK/out" || problem "stdout lacks '$1'"; }
expect_stdout_lacks() { ! grep -qF -- "$1" "$WORK/out" || problem "stdout has '$1'"; }
expect_stdout_line() { grep -qxF -- "$1" "$WORK/out" || problem "stdout lacks the line '$1'"; }
expect_stderr_contains() { grep -qF -- "$1" "$WORK/err" || problem "stderr lacks '$1'"; }
# The product's log lines go to the data root's log file (and with -v to stderr).
LOG_FILE_NAME=logs/tamsel.log
expect_log_contains() { grep -qF -- "$1" "$DATA/$LOG_FILE_NAME" 2>/dev/null || problem "the log file lacks '$1'"; }

# The address a server prints first, "listening on http(s)://127.0.0.1:PORT",
# once it has: waits up to 30 s, and stops early when the server (PID) exits.
# Prints nothing when no such line came.
listening_url() {
    local file=$1 pid=$2 url=""
    for _ in $(seq 1 300); do
        url=$(sed -n '1s/^listening on \(https\{0,1\}:\/\/127\.0\.0\.1:[0-9]*\)$/\1/p' "$file" 2>/dev/null)
        [ -n "$url" ] && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    printf '%s' "$url"
}

# Polls (up to 20 s) until the command succeeds.
eventually() {
    local i
    for i in $(seq 200); do
        if "$@"; then return 0; fi
        sleep 0.1
    done
    return 1
}
