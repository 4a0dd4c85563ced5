#!/usr/bin/env bash
# Builds the server, serves a directory over NFS and hands over its console. See usage.
set -euo pipefail
self=$(readlink -f "${BASH_SOURCE[0]}")
cd "$(dirname "$self")"
source tools/packages.sh

usage() {
    cat <<'USAGE'
usage: ./serve.sh [DIRECTORY [EXPORT]]   serve a directory (none: a small one made for the purpose) until "quit"
       ./serve.sh --check                serve a directory, mount it, list, write, read back, compare, stop
USAGE
}

fail() {
    echo "serve.sh: $*" >&2
    exit 1
}

console=build/bin/nfsconsole
nfsget=build/bin/nfsget
work=           # scratch: the console's input, what it printed, and the files of the check
console_pid=
feeder_pid=
printer_pid=

# ---- Preparation -----------------------------------------------------------------------------------------------------

build() {
    local place=build
    [ -e build ] || place=.
    [ -w $place ] || fail "cannot write to $PWD/build, where it is built: run it as root, or in a clone of your own"
    need_packages cmake g++ make pkg-config libtirpc-dev libnfs-dev
    local log
    log=$(mktemp)
    {
        { [ -e build/CMakeCache.txt ] || cmake -S . -B build -DNFSLIB_TESTS=OFF -DNFSLIB_BENCH=OFF; } &&
            cmake --build build --target nfsconsole nfsget -j "$(nproc)"
    } 2>&1 </dev/null | show_build "$log" || {
        tail -40 "$log" >&2
        rm -f "$log"
        fail "the build failed; its last lines are above"
    }
    rm -f "$log"
}

# show_build LOG: keeps what a build prints, says so when something is built, and shows on a terminal how far it is.
show_build() {
    local line told=
    while IFS= read -r line; do
        printf '%s\n' "$line" >>"$1"
        [[ $line =~ ^(\[[^]]*\])\ (Building|Linking) ]] || continue # "[ 12%] Building ..." or "[7/90] Linking ..."
        [ -n "$told" ] || echo "Building (the first time takes a while)"
        told=yes
        [ ! -t 1 ] || printf '\r%s ' "${BASH_REMATCH[1]}"
    done
    [ ! -t 1 ] || [ -z "$told" ] || printf '\r\033[K'
}

# The server binds port 111, below the ports that everybody may bind.
may_bind_port_111() {
    local capabilities first
    first=$(cat /proc/sys/net/ipv4/ip_unprivileged_port_start 2>/dev/null || echo 1024)
    [ "$first" -gt 111 ] || return 0
    capabilities=$((16#$(sed -n 's/^CapEff:[[:space:]]*//p' /proc/self/status)))
    (((capabilities >> 10) & 1)) # CAP_NET_BIND_SERVICE
}

# port_taken tcp|udp PORT: does a socket on this machine hold the port?
port_taken() {
    local state=07 # UDP: bound
    [ "$1" = udp ] || state=0A # TCP: listening
    cat "/proc/net/$1" "/proc/net/${1}6" 2>/dev/null |
        awk -v port=":$(printf %04X "$2")" -v state=$state \
            'substr($2, length($2) - 4) == port && $4 == state { found = 1 } END { exit !found }'
}

# Chooses the ports as the server does: beside a system portmapper it takes the next ones and registers them.
choose_ports() {
    local protocol port
    nfs_port=2049 mount_port=1058
    if port_taken tcp 111; then
        nfs_port=2050 mount_port=1059
    elif port_taken udp 111; then
        fail "port 111 (udp) is taken by another program; stop it first (as root, ss -lnup 'sport = :111' names it)"
    fi
    for port in $nfs_port $mount_port; do
        for protocol in tcp udp; do
            ! port_taken $protocol $port ||
                fail "port $port ($protocol) is taken by another program; stop it first" \
                    "(as root, ss -ln${protocol:0:1}p 'sport = :$port' names it)"
        done
    done
}

make_demo() {
    mkdir -p "$1/notes"
    echo "Hello from a user-space NFS server." >"$1/hello.txt"
    seq 1 1000 >"$1/numbers.txt"
    echo "A file in a directory." >"$1/notes/read-me.txt"
}

# ---- The server ------------------------------------------------------------------------------------------------------

# wait_for_text TEXT FAILURE: waits until the console has printed one of them; fails on the second, or at its end.
wait_for_text() {
    local i
    for ((i = 0; i < 300; ++i)); do
        ! grep -qF "$1" "$work/printed" || return 0
        ! grep -qF "$2" "$work/printed" || return 1
        kill -0 "$console_pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}

# start DIRECTORY EXPORT: starts the console in internal mode; its input stays open as descriptor 5, and what it prints
# also goes to the terminal unless $quiet is set.
start() {
    [ -n "$work" ] || work=$(mktemp -d)
    trap clean_up EXIT
    trap 'stop_by TERM' TERM HUP
    trap 'stop_by INT' INT
    mkfifo "$work/input" "$work/output"
    : >"$work/printed"
    if [ -n "${quiet:-}" ]; then
        cat <"$work/output" >"$work/printed" &
    else
        tee -i "$work/printed" <"$work/output" &
    fi
    printer_pid=$!
    "$console" -id serve -md int -log 1 <"$work/input" >"$work/output" 2>&1 4<&- &
    console_pid=$!
    exec 5>"$work/input"
    printf 'debug\nstart\n' >&5
    if ! wait_for_text "Start NFS success" "Fail to start NFS"; then
        [ "$nfs_port" = 2049 ] || echo "serve.sh: port 111 is taken, but not by a portmapper that registers us" >&2
        give_up "the server did not start"
    fi
    printf 'mount %s=%s\n' "$1" "$2" >&5
    printf 'print serving\n' >&5
    wait_for_text "(serve) serving" "Fail to add mount point" || give_up "the directory was not exported"
    client list "127.0.0.1:$2" >/dev/null || give_up "the server does not answer a client"
}

# Shows what the console said, if the terminal has not seen it, and ends it.
give_up() {
    [ -z "${quiet:-}" ] || cat "$work/printed" >&2
    fail "$* (the lines above tell why)"
}

# client COMMAND ARGUMENT...: the small client, on this server's ports.
client() {
    "$nfsget" -p "$nfs_port" -m "$mount_port" "$@"
}

stop_by() {
    [ -z "$console_pid" ] || kill -"$1" "$console_pid" 2>/dev/null || true
}

# Waits for the console's end, also across signals that this script gets; its exit status. The shell's own line about a
# program that was ended by a signal says nothing to a user.
wait_for_console() {
    local status=0
    while :; do
        status=0
        wait "$console_pid" 2>/dev/null || status=$?
        kill -0 "$console_pid" 2>/dev/null || break
    done
    console_pid=
    wait "$printer_pid" || true # its last lines
    return $status
}

clean_up() {
    [ -z "$feeder_pid" ] || kill "$feeder_pid" 2>/dev/null || true
    if [ -n "$console_pid" ]; then
        kill -TERM "$console_pid" 2>/dev/null || true
        wait_for_console || true
    fi
    [ -z "$work" ] || rm -rf "$work"
}

# ---- Serving a user --------------------------------------------------------------------------------------------------

print_client_commands() {
    local ports=""
    [ "$nfs_port" = 2049 ] || ports=" -p $nfs_port -m $mount_port"
    cat <<TEXT

Serving $1 as the export "$2". On this machine, in another terminal:
  $PWD/$nfsget$ports list 127.0.0.1:$2
  $PWD/$nfsget$ports put /etc/hostname 127.0.0.1:$2/from-client.txt
  $PWD/$nfsget$ports get 127.0.0.1:$2/from-client.txt -
Or with the kernel's client, as root (package nfs-common):
  mount -t nfs -o vers=3,proto=tcp,nolock,noacl,port=$nfs_port,mountport=$mount_port 127.0.0.1:$2 /mnt
  umount /mnt
One client at a time has the export, until it unmounts. From elsewhere use this machine's address.
Whoever reaches the ports 111, $mount_port and $nfs_port of this machine may read, write and delete everything in it: nobody is asked
who he is. On a network that you do not trust, let a firewall keep others away.
A client that writes asks for a COMMIT, which is not served: "[...ProcedureCOMMIT] Path record not found" is no fault.
The console is yours: "help" lists its commands, "log 24" shows every procedure that clients call, "quit" ends.
TEXT
    printf '\nCommand: '
}

serve() {
    local directory=$1 export=$2
    choose_ports
    start "$directory" "$export"
    exec 6>&2 2>/dev/null # whenever the shell learns that the console was ended by a signal, it would say so in its way
    print_client_commands "$directory" "$export"
    feed <&4 >&5 2>&6 &
    feeder_pid=$!
    exec 5>&-
    local status=0
    wait_for_console || status=$?
    exec 2>&6 6>&-
    if grep -qF 'm_nMaxNum' "$work/printed"; then
        fail "the server ended itself: a client opened one connection more than it takes" \
            "(10 for NFS, 3 for MOUNT, 3 for the portmapper); start it again"
    elif [ $status -gt 128 ]; then
        fail "the server was ended by signal $((status - 128))"
    fi
    return $status
}

# Passes on what the user types. The end of the input is not the server's; on a terminal (Ctrl-D) it is not even that.
feed() {
    local line
    while IFS= read -r line || [ -n "$line" ] || ended_on_terminal; do
        printf '%s\n' "$line"
    done
}

ended_on_terminal() {
    [ -t 0 ] || return 1
    echo '("quit" ends the server)' >&2
    sleep 0.1 # a terminal that has gone says so a moment later
}

# ---- The check -------------------------------------------------------------------------------------------------------

# In a network of its own the check neither meets nor disturbs what else runs here, and needs no rights.
check() {
    local user=()
    [ "$(id -u)" -eq 0 ] || user=(--map-root-user)
    if command -v ip >/dev/null && unshare "${user[@]}" --net ip link set lo up 2>/dev/null; then
        exec unshare "${user[@]}" --net bash -c 'ip link set lo up && exec "$0" --check-here' "$self"
    fi
    echo "No network of its own for the check: it uses this machine's ports"
    check_here
}

check_here() {
    quiet=yes
    may_bind_port_111 || fail "the server needs port 111, for which you have no right: sudo ./serve.sh --check"
    choose_ports
    work=$(mktemp -d)
    trap clean_up EXIT
    local folder=$work
    make_demo "$folder/served"
    head -c 3000001 /dev/urandom >"$folder/original"

    start "$folder/served" check
    expect "mounted, and the listing is the directory's" list_is_whole "$folder"
    expect "wrote a file of 3,000,001 bytes" client put "$folder/original" 127.0.0.1:check/copy
    expect "it lies in the served directory" cmp "$folder/original" "$folder/served/copy"
    expect "read it back" client get 127.0.0.1:check/copy "$folder/back"
    expect "it is the same" cmp "$folder/original" "$folder/back"
    expect "removed it" client remove 127.0.0.1:check/copy
    expect "it is gone from the served directory" test ! -e "$folder/served/copy"
    printf 'quit\n' >&5
    expect "stopped" wait_for_console
    expect "ports are free again" ports_are_free
    echo "check: all held"
}

# expect WHAT COMMAND...: ends the check unless the command succeeds.
expect() {
    local what=$1
    shift
    "$@" || fail "check FAILED: $what: no"
    echo "check: $what: yes"
}

list_is_whole() {
    client list 127.0.0.1:check | sed -E 's/^ *[0-9]+  //' >"$1/listed"
    LC_ALL=C ls -Ap "$1/served" | cmp - "$1/listed"
}

ports_are_free() {
    ! port_taken tcp "$nfs_port" && ! port_taken udp "$nfs_port" &&
        ! port_taken tcp "$mount_port" && ! port_taken udp "$mount_port"
}

# ---- Arguments -------------------------------------------------------------------------------------------------------

exec 4<&0
mode=serve
case "${1:-}" in
    -h | --help) usage && exit 0 ;;
    --check) mode=check ;;
    --check-here) mode=check_here ;; # in the network that --check made
    -*) usage >&2 && exit 2 ;;
esac
if [ $mode != serve ]; then
    [ $mode != check ] || build
    $mode
    exit
fi

[ $# -le 2 ] || { usage >&2 && exit 2; }
export_name=${2-data}
case "$export_name" in
    *[/=\ ]* | '') fail "an export's name holds no slash, blank or equals sign: \"$export_name\"" ;;
esac
if [ $# -eq 0 ]; then
    directory=$PWD/build/demo
else
    directory=$(cd "$OLDPWD" && readlink -e -- "$1") && [ -d "$directory" ] || fail "no such directory: $1"
fi
case "$directory" in
    *[=$'\n']*) fail "the console cannot name a path that holds an equals sign or a line end: $directory" ;;
esac
may_bind_port_111 || fail "the server needs port 111, for which you have no right: sudo ./serve.sh (or --check)"
build
[ $# -gt 0 ] || make_demo "$directory"
serve "$directory" "$export_name"
