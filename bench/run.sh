#!/usr/bin/env bash
# Measures the server against the bare server in one run: both on one processor, the load on another, in a network of
# their own. NFS-Ganesha (packages nfs-ganesha, nfs-ganesha-vfs, rpcbind), where it is installed, is measured against
# the same bare server. See usage.
set -euo pipefail
self=$(readlink -f "${BASH_SOURCE[0]}")
here=$(dirname "$self")

usage() {
    cat <<'USAGE'
usage: bench/run.sh [BUILD_FOLDER]   (default: build; a Release or RelWithDebInfo build counts)
  BENCH_OPERATIONS   calls for each row and round (5000)
  BENCH_ROUNDS       rounds of each row, in turns between the two servers; the fastest counts (15)
  BENCH_MEMORY       calls for the memory check after the rows (1000000; 0: none)
  BENCH_FOLDER       where the exported folder is made (/dev/shm: the servers are measured, not a disk)
Under "taskset -c N" load and servers share one processor: the servers' own work shows most there, as nobody waits for
another processor to wake up.
Exit status 1 if a row misses its target, or if the server's memory grows.
USAGE
}

build=$(readlink -f "${1:-$here/../build}")
[ -x "$build/bin/nfsload" ] || { usage >&2; exit 2; }

# A network of its own: every port is free, and nothing else is heard.
if [ -z "${BENCH_ISOLATED:-}" ]; then
    export BENCH_ISOLATED=1
    if [ "$(id -u)" = 0 ]; then
        exec unshare --net --mount -- "$self" "$build"
    fi
    exec unshare --user --map-root-user --net --mount -- "$self" "$build"
fi
ip link set lo up

operations=${BENCH_OPERATIONS:-5000}
rounds=${BENCH_ROUNDS:-15}
memory=${BENCH_MEMORY:-1000000}
mapfile -t processors < <(taskset -cp $$ | sed 's/.*: //' | tr ',' '\n' |
    awk -F- '{ for (i = $1; i <= ($2 == "" ? $1 : $2); ++i) print i }')
load_processor=${processors[0]}
server_processor=${processors[1]:-${processors[0]}}

work=$(mktemp -d "${BENCH_FOLDER:-/dev/shm}/nfsbench-XXXXXX")
server_pid=
bare_pid=
ganesha_pid=
rpcbind_pid=
clean_up() {
    exec 5>&- || true
    [ -z "$ganesha_pid" ] || { kill -TERM "$ganesha_pid" 2>/dev/null; wait "$ganesha_pid" 2>/dev/null || true; }
    [ -z "$rpcbind_pid" ] || { kill -TERM "$rpcbind_pid" 2>/dev/null; wait "$rpcbind_pid" 2>/dev/null || true; }
    [ -z "$server_pid" ] || { kill -TERM "$server_pid" 2>/dev/null; wait "$server_pid" || true; }
    [ -z "$bare_pid" ] || { kill -TERM "$bare_pid" 2>/dev/null; wait "$bare_pid" 2>/dev/null || true; }
    rm -rf "$work"
}
trap clean_up EXIT

mkdir "$work/export"
mkfifo "$work/input"
taskset -c "$server_processor" "$build/bin/nfsconsole" -id bench -md int <"$work/input" >"$work/printed" 2>&1 &
server_pid=$!
exec 5>"$work/input"
printf 'debug\nstart\nmount %s=data\nprint ready\n' "$work/export" >&5
for ((i = 0; i < 100; ++i)); do
    ! grep -q '(bench) ready' "$work/printed" || break
    sleep 0.1
done
grep -q 'Start NFS success' "$work/printed" || { cat "$work/printed" >&2; exit 1; }

taskset -c "$server_processor" "$build/bin/bareserver" 3049 &
bare_pid=$!
for ((i = 0; i < 100; ++i)); do
    ! (: </dev/tcp/127.0.0.1/3049) 2>/dev/null || break
    sleep 0.1
done

status=0
load() {
    taskset -c "$load_processor" "$build/bin/nfsload" --folder "$work/export" "$@" || status=1
    echo
}
echo "processor $load_processor: load; processor $server_processor: servers"
load --bare-port 3049 --operations "$operations" --rounds "$rounds" --target 0.7
load --bare-port 3049 --operations "$operations" --rounds "$rounds" --target 0.7 --depth 16 READ64K WRITE16K
load --operations "$operations" --connections 4 --depth 4
load --list 10000 --within 0.2
load --list 100000 --within 3
[ "$memory" = 0 ] || load --server-pid "$server_pid" --operations "$memory" NULL GETATTR READ4K

# What follows wants the ports of the first server.
kill -TERM "$server_pid"
wait "$server_pid" || true
server_pid=
echo "redirected files by the number of segments in their maps, and a plain file"
taskset -c "$server_processor" "$build/bin/redirectedload" --check --folder "${BENCH_FOLDER:-/dev/shm}" --rounds "$rounds" || status=1
echo

start_ganesha() {
    mount -t tmpfs none /run
    mkdir -p /run/rpcbind /run/ganesha
    ! [ -d /var/lib/nfs ] || mount -t tmpfs none /var/lib/nfs
    mkdir -p /var/lib/nfs/ganesha
    cat >"$work/ganesha.conf" <<CONFIGURATION
NFS_CORE_PARAM { NFS_Protocols = 3; Enable_NLM = false; Enable_RQUOTA = false; NFS_Port = 4049; MNT_Port = 4058; }
EXPORT {
    Export_Id = 1; Path = $work/export; Pseudo = /data; Access_Type = RW; Squash = None; Anonymous_Uid = 0;
    Anonymous_Gid = 0; SecType = none, sys; Protocols = 3; Transports = TCP; FSAL { Name = VFS; }
}
CONFIGURATION
    rpcbind -f >"$work/rpcbind.log" 2>&1 &
    rpcbind_pid=$!
    for ((i = 0; i < 100; ++i)); do
        ! (: </dev/tcp/127.0.0.1/111) 2>/dev/null || break
        sleep 0.1
    done
    taskset -c "$server_processor" ganesha.nfsd -F -L "$work/ganesha.log" -f "$work/ganesha.conf" \
        -p "$work/ganesha.pid" &
    ganesha_pid=$!
    for ((i = 0; i < 300; ++i)); do
        ! (: </dev/tcp/127.0.0.1/4049) 2>/dev/null || return 0
        sleep 0.1
    done
    cat "$work/ganesha.log" >&2
    return 1
}
if command -v ganesha.nfsd >/dev/null && command -v rpcbind >/dev/null; then
    start_ganesha
    echo "NFS-Ganesha, the same rows against the same bare server"
    peer() {
        load --nfs-port 4049 --mount-port 4058 --export "$work/export" --bare-port 3049 --operations "$operations" \
            --rounds "$rounds" "$@"
    }
    peer NULL GETATTR LOOKUP READ4K READ64K WRITE16K
    peer --depth 16 READ64K WRITE16K
else
    echo "NFS-Ganesha is not installed: not compared"
fi
exit $status
