# Sourced by run.sh: the console under test, its exports, and how the guest mounts them.

server_pid=
exports=(data other)

# start_server [FOLDER COMMAND...]: the console as it was built, serving the folders of all exports. With arguments, those
# in another place, and the console is started by a command.
start_server() {
    local i name place=${1:-$work}
    local console=("$build/bin/nfsconsole")
    [ $# -lt 2 ] || console=("${@:2}")
    : >"$work/server.log"
    [ -p "$work/server.in" ] || mkfifo "$work/server.in"
    exec {to_server}<>"$work/server.in"
    "${console[@]}" -md svr -id kernel -log 1 <"$work/server.in" >"$work/server.log" 2>&1 &
    server_pid=$!
    printf 'debug\nstart\n' >&"$to_server"
    for name in "${exports[@]}"; do
        printf 'mount %s=%s\n' "$place/$name" "$name" >&"$to_server"
    done
    printf 'print all exports are there\n' >&"$to_server"
    for ((i = 0; i < 100; ++i)); do
        ! grep -q 'all exports are there' "$work/server.log" || return 0
        sleep 0.1
    done
    cat "$work/server.log" >&2
    fail "the server did not start"
}

# stop_server: as the command "quit" does it; by force where that takes longer than ten seconds, which fails. Never call
# it in a subshell: only this shell can wait for the server.
stop_server() {
    local i status=0
    [ -n "$server_pid" ] || return 0
    printf 'quit\n' >&"$to_server"
    for ((i = 0; i < 100; ++i)); do
        kill -0 "$server_pid" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$server_pid" 2>/dev/null && status=1
    wait "$server_pid" || status=$?
    server_pid=
    exec {to_server}>&-
    [ $status -eq 0 ] || echo "the server ended with $status"
    return $status
}

server_runs() {
    [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null
}

# The server's addresses as the guest sees them: by the second one the guest is another client to the server.
address_a=10.0.2.2
address_b=10.9.0.1

# mount_as a|b EXPORT [OPTIONS]: mounts on /mnt/a or /mnt/b, from the first or the second address. A call that is not
# answered within 30 seconds is one that "all_answered" tells of.
mount_as() {
    local address=address_$1
    guest "mount -t nfs -o vers=3,proto=tcp,nolock,noacl,port=2049,mountport=1058,addr=${!address},\
timeo=300,retrans=0${3:+,$3} ${!address}:$2 /mnt/$1"
}

# remount a|b EXPORT [OPTIONS]: lets go of everything the client has cached, and mounts anew.
remount() {
    unmount "$1" "$2" && mount_as "$@"
}

# unmount a|b EXPORT: the guest has no umount.nfs, which would tell the server; nfsget tells it from the same address.
unmount() {
    guest "umount /mnt/$1" && release "$1" "$2"
}

release() {
    local address=127.0.0.1
    [ "$1" = a ] || address=$address_b
    timeout 10 "$build/bin/nfsget" release "$address:$2"
}

all_answered() {
    ! guest 'dmesg' | grep -F 'not responding'
}
