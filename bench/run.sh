#!/usr/bin/env bash
# Measures the server, a bare server that makes the same transfers and, where it is installed, NFS-Ganesha (packages
# nfs-ganesha, nfs-ganesha-vfs, rpcbind), in turns and in a network of their own. See usage.
set -euo pipefail
self=$(readlink -f "${BASH_SOURCE[0]}")
here=$(dirname "$self")

usage() {
    cat <<'USAGE'
usage: bench/run.sh [OPTION...] [ROW...]     (rows: nfsload lists them; all of them unless some are named)
  --build FOLDER     the build to measure (build); a Release or RelWithDebInfo build counts
  --csv FOLDER       writes machine.csv, rows.csv, listings.csv, options.csv, growth.csv there, and plots
  --document         the same, into docs/performance, and renews the tables of docs/performance.md
  --target           exit status 1 if a row misses its target (bench/targets.csv). Otherwise no time decides it
  --shapes "NAME..." of one, deep, wide and both, the ones to run (all of them)
  --rounds N         rounds of each row, in turns between the servers; the median counts (11)
  --milliseconds N   how long each round lasts (100)
  --singly           the load sends each call by itself, also when several are due
  --rows-only        no listings, redirected files and growth after the rows
  --no-ganesha       leaves NFS-Ganesha out
  --profile          tells with perf and strace where the server's time goes in each row: profile.csv
  --memory           checks at the end that ten seconds of calls do not make the server grow by 1 MiB
  --quick            a few seconds: two short rounds of each row, without NFS-Ganesha, that only look for wrong bytes
                     and errors; exit status 77 where no network can be made
BENCH_FOLDER in the environment: where the exported folder is made (/dev/shm, as the servers are measured and not a
disk; /tmp where that has no room). BENCH_DISK: a folder on a disk, for what flushing costs (/var/tmp).
Shapes: one call in flight; deep: 16 in flight; wide: 8 connections with 4 each; all these with client and servers on
one processor; both: as wide, the client on another processor than the servers.
Exit status 1 if a reply or a file is not what it should be.
USAGE
}

build=$here/../build
output=
document=
target=
shapes="one deep wide both"
rounds=11
milliseconds=100
singly=()
rows_only=
ganesha=yes
memory=
profile=
quick=
rows=()
arguments=("$@")
while [ $# -gt 0 ]; do
    case "$1" in
        --build) build=$2 && shift ;;
        --csv) output=$2 && shift ;;
        --document) document=yes ;;
        --target) target=yes ;;
        --shapes) shapes=$2 && shift ;;
        --rounds) rounds=$2 && shift ;;
        --milliseconds) milliseconds=$2 && shift ;;
        --singly) singly=(--singly) ;;
        --rows-only) rows_only=yes ;;
        --no-ganesha) ganesha= ;;
        --memory) memory=yes ;;
        --profile) profile=yes ;;
        --quick) quick=yes ;;
        -h | --help) usage && exit 0 ;;
        -*) usage >&2 && exit 2 ;;
        *) rows+=("$1") ;;
    esac
    shift
done
build=$(readlink -f "$build")
[ -x "$build/bin/nfsload" ] || {
    echo "bench/run.sh: no $build/bin/nfsload" >&2
    exit 2
}
say() { echo "bench/run.sh: $*" >&2; }
if [ -n "$output$document$target$profile" ] && ! command -v python3 >/dev/null; then
    say "plots, tables and targets need python3"
    exit 2
fi
if [ -n "$profile" ] && ! command -v perf >/dev/null; then
    say "--profile needs perf"
    exit 2
fi

# A network of its own: every port is free, and nothing else is heard.
if [ -z "${BENCH_ISOLATED:-}" ]; then
    isolate=(unshare --net --mount)
    [ "$(id -u)" = 0 ] || isolate=(unshare --user --map-root-user --net --mount)
    "${isolate[@]}" ip link set lo up 2>/dev/null || {
        say "no network of one's own can be made here: nothing measured"
        exit 77
    }
    BENCH_ISOLATED=1 exec "${isolate[@]}" -- "$self" "${arguments[@]}"
fi
ip link set lo up
# Sockets that have a place in the file system are not kept apart by the network.
mount -t tmpfs none /run

[ -z "$document" ] || output=$here/../docs/performance
if [ -n "$quick" ]; then
    rounds=2 milliseconds=8 ganesha=
fi
mapfile -t processors < <(taskset -cp $$ | sed 's/.*: //' | tr ',' '\n' |
    awk -F- '{ for (i = $1; i <= ($2 == "" ? $1 : $2); ++i) print i }')
server_processor=${processors[-1]}
load_processor=${processors[0]}

# ---- Servers

folder=${BENCH_FOLDER:-/dev/shm}
kilobytes=$(df -Pk "$folder" 2>/dev/null | awk 'NR == 2 { print $4 }')
if [ -z "${BENCH_FOLDER:-}" ] && [ "${kilobytes:-0}" -lt 300000 ]; then
    folder=/tmp
    say "no room in /dev/shm: measuring in /tmp"
fi
work=$(mktemp -d "$folder/nfsbench-XXXXXX")
declare -A pids=()
stop() {
    local pid=${pids[$1]:-}
    unset "pids[$1]"
    [ -z "$pid" ] || { kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null; } || true
}
disk=
clean_up() {
    exec 5>&- || true
    local name
    for name in strace ganesha rpcbind nfslib bare; do
        stop "$name"
    done
    rm -rf "$work" ${disk:+"$disk"}
}
trap clean_up EXIT

# until_true SECONDS WHAT COMMAND...
until_true() {
    local end=$((SECONDS + $1)) what=$2
    shift 2
    until "$@" 2>/dev/null; do
        [ "$SECONDS" -le "$end" ] || { say "$what did not start" && return 1; }
        sleep 0.05
    done
}
listens() { (: <"/dev/tcp/127.0.0.1/$1"); }

# start_nfslib FOLDER [OPTION...]
start_nfslib() {
    rm -f "$work/input"
    mkfifo "$work/input"
    taskset -c "$server_processor" "$build/bin/nfsconsole" -id bench -md int "${@:2}" <"$work/input" \
        >"$work/printed" 2>&1 &
    pids[nfslib]=$!
    exec 5>"$work/input"
    printf 'debug\nstart\nmount %s=data\nprint ready\n' "$1" >&5
    until_true 20 "the server" grep -q '(bench) ready' "$work/printed" &&
        grep -q 'Start NFS success' "$work/printed" || {
        cat "$work/printed" >&2
        return 1
    }
}

start_bare() {
    taskset -c "$server_processor" "$build/bin/bareserver" 3049 &
    pids[bare]=$!
    until_true 10 "the bare server" listens 3049
}

# Its portmapper runs in another network, as port 111 is the first server's; they meet at a socket below /run.
start_ganesha() {
    mkdir -p /run/rpcbind /run/ganesha
    ! [ -d /var/lib/nfs ] || mount -t tmpfs none /var/lib/nfs
    mkdir -p /var/lib/nfs/ganesha
    sed "s|@EXPORT@|$work/export|" "$here/ganesha.conf" >"$work/ganesha.conf"
    unshare --net rpcbind -f >"$work/rpcbind.log" 2>&1 &
    pids[rpcbind]=$!
    until_true 10 rpcbind test -S /run/rpcbind.sock
    taskset -c "$server_processor" ganesha.nfsd -F -L "$work/ganesha.log" -f "$work/ganesha.conf" \
        -p "$work/ganesha.pid" >"$work/ganesha.printed" 2>&1 &
    pids[ganesha]=$!
    until_true 30 NFS-Ganesha listens 4049 && until_true 10 "its MOUNT" listens 4058 || {
        cat "$work/ganesha.log" "$work/ganesha.printed" >&2
        return 1
    }
}

mkdir "$work/export"
start_nfslib "$work/export"
start_bare
peers=(--peer nfslib:2049:1058:data --bare 3049)
if [ -n "$ganesha" ] && command -v ganesha.nfsd >/dev/null && command -v rpcbind >/dev/null; then
    start_ganesha
    peers+=(--peer "ganesha:4049:4058:$work/export")
elif [ -z "$quick" ]; then
    say "NFS-Ganesha is left out, or not installed: not compared"
fi

# ---- What is measured

csv=$work/csv
mkdir "$csv"
describe_machine() {
    local governor=/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor
    echo "what,value"
    printf '%s,"%s"\n' \
        date "$(date -u '+%Y-%m-%d %H:%M UTC')" \
        commit "$(git -C "$here" describe --always --dirty --exclude '*' 2>/dev/null || echo unknown)" \
        processor "$(awk -F ': ' '/^model name/ { print $2; exit }' /proc/cpuinfo)" \
        processors "${#processors[@]}" \
        governor "$(cat "$governor" 2>/dev/null || echo "none told")" \
        memory "$(awk '/^MemTotal/ { printf "%.0f GB", $2 / 1e6 }' /proc/meminfo)" \
        kernel "$(uname -sr)" \
        folder "$(stat -f -c %T "$work")" \
        ganesha "$([ -z "${pids[ganesha]:-}" ] || ganesha.nfsd -v 2>&1 | awk -F '= *' '/Release/ { print $2; exit }')" \
        rounds "$rounds of $milliseconds ms" \
        load "$(cut -d ' ' -f 1 /proc/loadavg) at the beginning"
}
describe_machine >"$csv/machine.csv"

shape_options=()
for shape in $shapes; do
    case "$shape" in
        one) shape_options+=(--shape "one:1:1:$server_processor") ;;
        deep) shape_options+=(--shape "deep:1:16:$server_processor") ;;
        wide) shape_options+=(--shape "wide:8:4:$server_processor") ;;
        both)
            if [ "${#processors[@]}" -gt 1 ]; then
                shape_options+=(--shape "both:8:4:$load_processor")
            else
                say "there is one processor only: shape \"both\" is left out"
            fi
            ;;
        *) usage >&2 && exit 2 ;;
    esac
done
load() { "$build/bin/nfsload" --folder "$work/export" --rounds "$rounds" "$@"; }
resident() { awk '/^VmRSS/ { print $2 }' "/proc/${pids[nfslib]}/status"; }

say "rows: step 1 of 5"
load "${peers[@]}" "${shape_options[@]}" --milliseconds "$milliseconds" --csv "$csv/rows.csv" \
    "${singly[@]}" "${rows[@]}"
if [ -n "$memory" ]; then
    say "memory: step 1, at its end"
    before=$(resident)
    load --milliseconds $((10000 / rounds / 3)) NULL GETATTR READ4K >"$work/memory.txt"
    after=$(resident)
    echo "server memory: $before KiB before, $after KiB after ten seconds of calls"
    [ $((after - before)) -lt 1024 ] || { say "the server's memory grows" && exit 1; }
fi
# measure_option NAME FOLDER ROW...: one call in flight, beside the bare server.
measure_option() {
    rm -f "$work/option.csv"
    "$build/bin/nfsload" --folder "$2" --peer nfslib:2049:1058:data --bare 3049 --shape "one:1:1:$server_processor" \
        --rounds 7 --milliseconds 80 --csv "$work/option.csv" "${@:3}" >/dev/null 2>&1
    awk -F, -v option="$1" 'NR > 1 && $5 == "nfslib" { print option "," $4 "," $7 "," $10 "," $14 }' "$work/option.csv" |
        tee -a "$csv/options.csv"
}
# Bits are those of the console's "log"; what they say goes to a file in memory.
measure_options() {
    local bits
    echo "option,row,ops_per_s,p50_us,of_bare" | tee "$csv/options.csv"
    for bits in 0 3 12 28 1023; do
        printf 'log %s\nprint bits %s\n' "$bits" "$bits" >&5
        until_true 10 "logging" grep -q "(bench) bits $bits" "$work/printed"
        measure_option "log $bits" "$work/export" GETATTR READ4K WRITE16K
    done
    stop nfslib
    disk=$(mktemp -d "${BENCH_DISK:-/var/tmp}/nfsbench-XXXXXX")
    start_nfslib "$disk"
    measure_option "a disk" "$disk" WRITE4K WRITE16K
    stop nfslib
    start_nfslib "$disk" -sync
    measure_option "a disk with -sync" "$disk" WRITE4K WRITE16K
    stop nfslib
}

# One row at a time and the server alone: samples of its processor time, then (calls one by one) its system calls.
profile_row() {
    local trace=()
    perf record -q -e cpu-clock -F 4000 -g -p "${pids[nfslib]}" -o "$work/perf.data" -- \
        "$build/bin/nfsload" --folder "$work/export" --shape "$1" --rounds 1 --milliseconds 1000 "$2" \
        >/dev/null 2>"$work/perf.log" || { cat "$work/perf.log" >&2 && return 1; }
    perf script -i "$work/perf.data" -F ip,sym,dso >"$work/perf.txt" 2>/dev/null
    if [[ $1 = one:* ]] && command -v strace >/dev/null; then
        strace -f -qq -p "${pids[nfslib]}" -o "$work/trace.txt" 2>/dev/null &
        pids[strace]=$!
        load --shape "$1" --rounds 1 --milliseconds 100 "$2" >/dev/null 2>&1
        stop strace
        trace=("$work/trace.txt")
    fi
    python3 "$here/report/profile.py" "${1%%:*}" "$2" "$work/perf.txt" "${trace[@]}" | tee -a "$csv/profile.csv"
}
if [ -n "$profile" ]; then
    echo
    say "where the time goes"
    echo "shape,row,samples,own,send,receive,names,data,locks,switch,kernel,calls" | tee "$csv/profile.csv"
    for shape in "one:1:1:$server_processor" "deep:1:16:$server_processor"; do
        for row in $(awk -F, 'NR > 1 { print $4 }' "$csv/rows.csv" | awk '!seen[$0]++'); do
            profile_row "$shape" "$row"
        done
    done
fi
if [ -z "$rows_only" ]; then
    echo
    say "listings: step 2 of 5"
    load "${peers[@]}" --shape "one:1:1:$server_processor" --list 1000 --csv "$csv/listings.csv"
    [ -n "$quick" ] || load "${peers[@]}" --shape "one:1:1:$server_processor" --list 100000 --rounds 3 \
        --csv "$csv/listings.csv"
    stop ganesha
    if [ -z "$quick" ]; then
        echo
        say "log bits and -sync: step 3 of 5"
        measure_options
    fi
    # What follows wants the ports of the first server.
    stop nfslib
    echo
    say "redirected files: step 4 of 5"
    redirected=()
    [ -z "$quick" ] || redirected=(--operations 30)
    taskset -c "$server_processor" "$build/bin/redirectedload" --folder "$folder" \
        --rounds "$rounds" --csv "$csv/growth.csv" "${redirected[@]}"
    if [ -z "$quick" ] && [ -x "$build/bin/growth" ]; then
        echo
        say "growth: step 5 of 5"
        taskset -c "$server_processor" "$build/bin/growth" --csv >"$work/growth.csv"
        tail -n +2 "$work/growth.csv" | tee -a "$csv/growth.csv"
    fi
fi

# ---- What is made of it

status=0
if [ -n "$target" ]; then
    echo
    "$here/plot" --judge "$csv" || status=1
fi
if [ -n "$output" ]; then
    mkdir -p "$output"
    cp "$csv"/*.csv "$output/"
    "$here/plot" "$output"
    [ -z "$document" ] || "$here/plot" --tables "$here/../docs/performance.md" "$output"
    say "figures and plots: $output"
fi
exit $status
