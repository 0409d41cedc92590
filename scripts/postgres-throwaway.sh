#!/usr/bin/env bash
# A throwaway PostgreSQL cluster for the cloud server's tests, on loopback.
#
#   scripts/postgres-throwaway.sh start DIR PORT   # prints the connection address
#   scripts/postgres-throwaway.sh stop DIR
#
# initdb and postgres refuse to run as root: as root they run as the user
# postgres (runuser), which then owns DIR. Authentication is "trust" on
# 127.0.0.1 only; nothing listens elsewhere, and the socket lives in DIR.
set -euo pipefail

bin=$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1)
[ -n "$bin" ] || { echo "postgres-throwaway: PostgreSQL is not installed (scripts/install-deps)" >&2; exit 1; }

as_owner() {
    if [ "$(id -u)" -eq 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

case "${1:-}" in
start)
    dir=$2
    port=$3
    mkdir -p "$dir"
    [ "$(id -u)" -eq 0 ] && chown postgres: "$dir"
    as_owner "$bin/initdb" -D "$dir/data" -U postgres -A trust --no-sync >"$dir/initdb.log" 2>&1 ||
        { cat "$dir/initdb.log" >&2; exit 1; }
    as_owner "$bin/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
        -o "-c listen_addresses=127.0.0.1 -p $port -k $dir -c fsync=off" start >/dev/null ||
        { cat "$dir/server.log" >&2; exit 1; }
    echo "postgresql://postgres@127.0.0.1:$port/postgres"
    ;;
stop)
    dir=$2
    as_owner "$bin/pg_ctl" -D "$dir/data" -m fast -w stop >/dev/null 2>&1 || true
    ;;
*)
    echo "usage: $0 start DIR PORT | stop DIR" >&2
    exit 2
    ;;
esac
