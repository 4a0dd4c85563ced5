#!/usr/bin/env bash
# The Linux kernel's own NFS client against the built console. ./test.sh --kernel-client builds and runs this.
#
# A virtual machine with Debian's kernel (QEMU, user networking) and the console run in network, mount and process
# namespaces made for the purpose: nothing of it is seen outside, and nothing outlives this script.
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/machine.sh"
source "$here/server.sh"
for file in "$here"/scenarios/*.sh; do
    source "$file"
done

usage() {
    cat <<'USAGE'
usage: tests/kernel/run.sh BUILD_FOLDER [--short] [WORD]
  --short   the part that takes at most 3 minutes; everything takes at most 10
  WORD      only the scenarios whose description holds it
USAGE
}

fail() {
    echo "kernel client: $*" >&2
    exit 1
}

# ---- Scenarios -------------------------------------------------------------------------------------------------------

# What is run, in this order: its time limit in seconds; its function; what holds if it succeeds. The short run has all of
# them, with smaller numbers (see by_size).
scenarios=(
    ' 60 scenario_mount_again     an export is mounted, refused to a second mount, and mounted again'
    '120 scenario_sizes           files of many sizes, in several block sizes, have the same checksum on both sides'
    '150 scenario_streams         streams of 48 MiB arrive whole, in requests of several sizes'
    '150 scenario_tree            a copied tree equals the original'
    ' 60 scenario_save            files saved by rename are what was saved last'
    ' 60 scenario_append          appended, truncated and sparse files have the right bytes'
    ' 60 scenario_folders         deep folders are made and removed'
    ' 60 scenario_names           names of all kinds come and go as they are'
    '120 scenario_remove_tree     rm -rf removes thousands of files'
    ' 60 scenario_remove_listing  files are removed while the listing of their folder goes on'
    '150 scenario_list            a listing is whole while the host adds and removes files'
    ' 60 scenario_replace         a file that the host replaces is read and written as what it is now'
    ' 60 scenario_links           removing a symbolic link leaves what it points to'
    ' 60 scenario_read_only       files on a read-only file system are read, and not written'
    ' 90 scenario_service_user    a server that is not root writes the read-only files it has just made'
    ' 60 scenario_traffic         a file with captured calls in it is copied, and they are not executed'
    ' 60 scenario_direct          O_DIRECT and mmap write and read the same bytes'
    '120 scenario_four            four processes work side by side'
    '120 scenario_redirected      a redirected file is read whole and at random'
    '150 scenario_recovery        a disk lent by the instant-recovery example is used under an overlay, and written out whole'
    ' 90 scenario_restart         a client that lives through a restart harms nobody and goes on after a new mount'
)

# expect WHAT COMMAND...: tells what does not hold unless the command succeeds.
expect() {
    local what=$1 printed
    shift
    ! printed=$("$@" 2>&1) || return 0
    failed=yes
    echo "    no: $what"
    [ -z "$printed" ] || tail -n 20 <<<"$printed" | cut -c 1-300 | sed 's/^/        /'
    return 1
}

# skip WHY: the scenario cannot be run here. In CI that is a failure.
skip() {
    skipped=$1
    left_out+=("$1")
    [ "${CI:-}" != true ] || expect "nothing is missing in CI" false
    return 0
}

# expect_text WHAT TEXT COMMAND...: the command succeeds and prints exactly this.
expect_text() {
    expect "$1" prints "${@:2}"
}

prints() {
    local text=$1 printed status=0
    shift
    printed=$("$@") || status=$?
    [ $status -eq 0 ] && [ "$printed" = "$text" ] && return 0
    printf 'exit status %d, printed "%s" instead of "%s"\n' $status "$printed" "$text"
    return 1
}

# by_size WHOLE SHORT: prints the one that the size of the run asks for.
by_size() {
    [ "$size" = whole ] && echo "$1" || echo "$2"
}

# fails COMMAND...: succeeds if the command does not, unless the guest hangs.
fails() {
    ! "$@" && [ ! -e "$work/hung" ]
}

seconds_since() {
    echo $(((${EPOCHREALTIME/./} - ${1/./}) / 100000)) | sed 's/.$/.&/; s/^\./0./'
}

# run_scenario LIMIT FUNCTION DESCRIPTION: gives it empty exports, a guest with nothing mounted and a running server. After a
# failure guest and server are started anew, so that no scenario suffers from the one before it.
run_scenario() {
    local begin
    number=$((number + 1))
    failed='' skipped=''
    fresh
    begin=$EPOCHREALTIME
    scenario_end=$((SECONDS + $1))
    "$2"
    expect "every call is answered in time" all_answered
    expect "the server still runs" server_runs
    if [ -z "$failed" ]; then
        echo "ok $number - $3${skipped:+ # SKIPPED: $skipped} ($(seconds_since "$begin") s)"
        return 0
    fi
    echo "not ok $number - $3 ($(seconds_since "$begin") s)"
    broken+=("$3")
    tell_last_words
    power_off
    stop_server >/dev/null
    rm -f "$work/hung"
}

fresh() {
    local name
    for name in "${exports[@]}"; do
        mkdir -p "$work/$name"
        find "$work/$name" -mindepth 1 -delete
    done
    server_runs || start_server
    [ -n "$qemu_pid" ] || boot || { tell_last_words && fail "the guest does not start within a minute"; }
    scenario_end=$((SECONDS + 10))
    guest 'rm -rf /tmp/* && dmesg -c >/dev/null' || fail "the guest does not answer"
}

tell_last_words() {
    local log
    for log in guest server qemu; do
        [ -s "$work/$log.log" ] || continue
        echo "    last lines of the $log:"
        tail -n 8 "$work/$log.log" | tr -d '\r' | cut -c 1-200 | sed 's/^/        /'
    done
}

run_all() {
    local line limit function description start=$SECONDS
    broken=() left_out=() number=0
    for line in "${scenarios[@]}"; do
        read -r limit function description <<<"$line"
        [[ $description == *"$word"* ]] || continue
        run_scenario "$limit" "$function" "$description"
    done
    power_off
    stop_server || broken+=("the server ends")
    [ $number -gt 0 ] || fail "no scenario holds \"$word\""
    if [ ${#broken[@]} -gt 0 ]; then
        echo "kernel client: ${#broken[@]} of $number scenarios FAILED in $((SECONDS - start)) s:"
        printf '  %s\n' "${broken[@]}"
        return 1
    fi
    echo "kernel client: all $number scenarios held in $((SECONDS - start)) s${left_out[*]:+, but for ${#left_out[@]} SKIPPED}"
}

# ---- The two halves of the script ------------------------------------------------------------------------------------

# inside: the first process of the namespaces; all others end with it.
inside() {
    trap 'exit 143' TERM INT HUP
    give_own_tmp || fail "cannot mount a /tmp of its own"
    ip link set lo mtu 1500 up && ip address add $address_b/32 dev lo || fail "cannot set up the network"
    run_all
}

# give_own_tmp: the server's socket lies in /tmp. A build folder that does so, too, stays where it is.
give_own_tmp() {
    cd "$build" && mount -t tmpfs none /tmp || return
    [ -d "$build" ] || { mkdir -p "$build" && mount --no-canonicalize --bind . "$build"; }
}

# outside: prepares what needs the network, then runs the rest in the namespaces, for so long and no longer.
outside() {
    local user=() status=0 seconds=590
    [ "$size" = whole ] || seconds=180
    for program in qemu-system-x86_64 busybox cpio ip unshare; do
        command -v $program >/dev/null || fail "$program is missing (qemu-system-x86, busybox-static, cpio, iproute2)"
    done
    fetch_kernel "${XDG_CACHE_HOME:-$HOME/.cache}/nfslib/kernel"
    [ "$(id -u)" -eq 0 ] || user=(--map-root-user)
    unshare "${user[@]}" --net --mount --pid --fork true 2>/dev/null ||
        fail "cannot make namespaces: run it as root, or allow user namespaces"
    work=$(mktemp -d "$build/kernel-client.XXXXXX")
    trap stop_inside EXIT
    trap 'exit 143' TERM INT HUP
    make_initramfs "$work/initramfs.gz"
    cp "$kernel"/boot/vmlinuz-* "$work/vmlinuz"
    echo "Kernel: $(basename "$kernel"), kept in $(dirname "$kernel"); $accelerator"
    timeout -k 5 $seconds unshare "${user[@]}" --net --mount --pid --fork --kill-child --mount-proc \
        "$here/run.sh" --inside "$work" "$@" </dev/null &
    inside_pid=$!
    wait $inside_pid || status=$?
    inside_pid=
    [ $status -ne 124 ] && [ $status -ne 137 ] || fail "not done within $seconds s"
    exit $status
}

stop_inside() {
    if [ -n "$inside_pid" ]; then
        kill -TERM "$inside_pid" 2>/dev/null
        wait "$inside_pid" 2>/dev/null
    fi
    rm -rf "$work"
}

# ---- Arguments -------------------------------------------------------------------------------------------------------

inside_pid= half=outside size=whole word=
accelerator=${NFSLIB_QEMU_ACCELERATOR:-tcg}
arguments=("$@")
if [ "${1:-}" = --inside ]; then
    half=inside work=$2
    shift 2
fi
[ $# -gt 0 ] && [ -d "$1" ] || { usage >&2 && exit 2; }
build=$(cd "$1" && pwd)
shift
if [ "${1:-}" = --short ]; then
    size=short
    shift
fi
word=${1:-}
$half "${arguments[@]}"
