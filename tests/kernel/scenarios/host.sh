# Sourced by run.sh: scenarios in which the host changes what the client uses.

scenario_replace() {
    expect "mounted" mount_as a data actimeo=0 || return
    echo "old content" >"$work/data/file"
    expect_text "the client reads the file" "old content" guest 'cat /mnt/a/file'
    echo "new" >"$work/data/file.new" && mv "$work/data/file.new" "$work/data/file"
    expect_text "replaced by the host, it is read as the new one" "new" guest 'cat /mnt/a/file'
    expect "the client appends a line" guest 'echo "by the client" >>/mnt/a/file'
    expect_text "the host's file has it" $'new\nby the client' cat "$work/data/file"
    rm "$work/data/file" && echo "made again" >"$work/data/file"
    expect_text "removed and made again, it is read as it is now" "made again" guest 'cat /mnt/a/file'
    expect "the client appends a line" guest 'echo "by the client" >>/mnt/a/file'
    expect_text "the host's file has it" $'made again\nby the client' cat "$work/data/file"

    # What is written through a descriptor from before may be refused, but not lost without a word.
    echo "first" >"$work/data/held"
    expect "a client's program opens a file" guest '
        { probe append-later /mnt/a/held late /tmp/open /tmp/go >/tmp/said && touch /tmp/taken; touch /tmp/closed; } &
        while [ ! -e /tmp/open ]; do usleep 50000; done'
    echo "second" >"$work/data/held.new" && mv "$work/data/held.new" "$work/data/held"
    expect "and writes to it after the host has replaced it" guest '
        touch /tmp/go; while [ ! -e /tmp/closed ]; do usleep 50000; done'
    expect "the line is in the host's file, or was refused" taken_or_refused

    expect "the client reads a file to its end" guest 'cat /mnt/a/file'
    echo "by the host" >>"$work/data/file"
    expect_text "what the host appends is read" $'made again\nby the client\nby the host' guest 'cat /mnt/a/file'
    expect "unmounted" unmount a data
}

taken_or_refused() {
    guest 'test ! -e /tmp/taken' || grep -x late "$work/data/held"
}

scenario_links() {
    local data=$work/data
    mkdir "$data/keep" "$data/project" "$data/tree"
    echo "kept" >"$data/keep/file"
    echo "outside" >"$work/outside"
    ln -s ../keep/file "$data/project/link"
    ln -s ../keep/file "$data/project/second"
    ln -s ../keep/file "$data/tree/shortcut"
    ln -s nowhere "$data/project/dangling"
    ln -s "$work/outside" "$data/project/out"
    echo "in the tree" >"$data/tree/file"
    expect "mounted" mount_as a data || return
    expect_text "the file behind a link is read after a listing" "kept" \
        guest 'ls -l /mnt/a/project >/dev/null 2>&1; cat /mnt/a/project/link'
    expect "a file outside the export is not" fails guest 'cat /mnt/a/project/out'
    expect "rm removes the link" guest 'rm /mnt/a/project/link'
    expect "the link is gone" fails test -L "$data/project/link"
    expect_text "what it pointed to is there" "kept" cat "$data/keep/file"
    expect "a link is renamed" guest 'mv /mnt/a/project/second /mnt/a/project/third'
    expect "the link has the new name" test -L "$data/project/third"
    expect_text "what it points to is where it was" "kept" cat "$data/keep/file"
    expect "a file is renamed onto a link" guest 'echo new >/mnt/a/project/new && mv /mnt/a/project/new /mnt/a/project/third'
    expect_text "it has replaced the link" "new" cat "$data/project/third"
    expect_text "what the link pointed to is as it was" "kept" cat "$data/keep/file"
    expect "a tree with a link in it is removed" guest 'rm -rf /mnt/a/tree'
    expect "it is gone" fails test -e "$data/tree"
    expect_text "what the link pointed to is there" "kept" cat "$data/keep/file"
    expect_text "and what a link out of the export points to" "outside" cat "$work/outside"
    expect "unmounted" unmount a data
}

scenario_read_only() {
    mkdir "$work/data/ro" "$work/readonly"
    "$build/bin/kernel_probe" write "$work/readonly/file" 0 300000 65536 41
    mount --bind "$work/readonly" "$work/data/ro" && mount -o remount,bind,ro "$work/data/ro" ||
        { expect "a read-only file system is mounted" false && return; }
    expect "mounted" mount_as a data && {
        expect "its file is read" guest 'probe check /mnt/a/ro/file 300000 65536 41'
        expect "it is not written" fails guest 'probe write /mnt/a/ro/file 0 100 100 42'
        expect "no file is made" fails guest 'probe write /mnt/a/ro/new 0 100 100 42'
        expect "its file is not removed" fails guest 'rm /mnt/a/ro/file'
        expect "its file is read again" guest 'probe random /mnt/a/ro/file 300000 20 41'
        expect "unmounted" unmount a data
    }
    umount --lazy "$work/data/ro" # the server keeps its file open
    expect "the file is as it was" "$build/bin/kernel_probe" check "$work/readonly/file" 300000 65536 41
    rm -rf "$work/readonly"
}

# The server as an ordinary user, as its service runs it: a client that makes a file nobody may write to goes on writing it.
scenario_service_user() {
    local place=/tmp/service name
    awk '$1 + $3 > 65534 { found = 1 } END { exit !found }' /proc/self/uid_map || { skip "no second user"; return; }
    stop_server
    expect "the server stops, with success" [ $? -eq 0 ]
    mkdir -p "$place/bin"
    cp "$build/bin/nfsconsole" "$build"/lib/libNfsLib.so* "$place/bin"
    for name in "${exports[@]}"; do
        mkdir "$place/$name" && chown 65534:65534 "$place/$name"
    done
    echo "root's" >"$place/data/roots"
    echo 0 >/proc/sys/net/ipv4/ip_unprivileged_port_start
    start_server "$place" setpriv --reuid=65534 --regid=65534 --clear-groups env LD_LIBRARY_PATH="$place/bin" \
        "$place/bin/nfsconsole"
    expect "mounted" mount_as a data || return
    expect "the client has a read-only file" guest 'probe write /tmp/f 0 300000 65536 61 && chmod 444 /tmp/f'
    expect "it is copied" guest 'cp /tmp/f /mnt/a/copy'
    expect "it is unpacked" guest 'cd /tmp && tar cf f.tar f && tar xf f.tar -C /mnt/a'
    for name in copy f; do
        expect "$name is whole on the host" "$build/bin/kernel_probe" check "$place/data/$name" 300000 65536 61
        expect_text "and read-only" "444 65534" stat -c '%a %u' "$place/data/$name"
    done
    expect "a file of somebody else's is not written" \
        fails guest 'dd if=/tmp/f of=/mnt/a/roots bs=9 count=1 conv=notrunc,fsync'
    expect_text "and is as it was" "root's" cat "$place/data/roots"
    expect "unmounted" unmount a data
    stop_server
    expect "the server stops, with success" [ $? -eq 0 ]
    start_server
}
