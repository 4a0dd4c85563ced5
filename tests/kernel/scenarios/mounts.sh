# Sourced by run.sh: scenarios about mounts, several processes and the server's life.

scenario_mount_again() {
    local i
    echo "here" >"$work/data/file"
    for i in 1 2 3; do
        expect "mounted" mount_as a data || return
        expect_text "the client sees the file" "here" guest 'cat /mnt/a/file'
        expect "a second mount is refused" fails mount_as b data
        expect "because of the rights" has 'Permission denied' mount_as b data
        expect "the first one goes on" guest "echo $i >/mnt/a/number.$i && ls /mnt/a/number.$i"
        expect "unmounted" unmount a data || return
    done
    expect "another client mounts it" mount_as b data || return
    expect_text "and sees everything" $'file\nnumber.1\nnumber.2\nnumber.3' guest 'ls /mnt/b'
    expect "unmounted" unmount b data
}

# has TEXT COMMAND...: the command prints the text, whether it succeeds or not.
has() {
    local text=$1 printed
    shift
    printed=$("$@" 2>&1) || true
    echo "$printed"
    [[ $printed == *"$text"* ]]
}

scenario_four() {
    local i rounds
    rounds=$(by_size 3 1)
    expect "mounted" mount_as a data || return
    expect "four processes copy, check, rename, list and remove" guest "rounds=$rounds;"'
        worker() {
            mkdir /mnt/a/w$1 && cd /mnt/a/w$1 || return
            for round in $(seq $rounds); do
                probe write file 0 3000000 $((1000 * $1 + 7)) $1$round && probe check file 3000000 65536 $1$round &&
                    cp file copy && cmp file copy && mv copy moved && [ "$(ls)" = "file
moved" ] && probe random moved 3000000 30 $1$round && rm file || { echo "worker $1, round $round"; return 1; }
                for i in $(seq 100); do echo $i >small.$i || return; done
                [ "$(ls | wc -l)" = 101 ] && rm small.* || { echo "worker $1 counts $(ls | wc -l)"; return 1; }
            done
        }
        for i in 1 2 3 4; do { worker $i; echo "$i ended with $?"; } >/tmp/worker.$i 2>&1 & done
        wait
        cat /tmp/worker.*
        [ "$(cat /tmp/worker.* | grep -c "ended with 0")" = 4 ]'
    for i in 1 2 3 4; do
        expect "the host has the last file of process $i" here_is "w$i/moved" 3000000 "$i$rounds"
    done
    expect "unmounted" unmount a data
}

# The client A keeps its mount over the restart. Handles start again from 0 then, and client B is the first to get some.
scenario_restart() {
    echo "b's" >"$work/other/file"
    echo "b's" >"$work/other/second"
    expect "client A mounts" mount_as a data || return
    expect "and writes" guest 'probe write /mnt/a/file 0 1000000 65536 51 && echo one >/mnt/a/second'
    expect "a program of A's opens a file" guest '
        { exec 7>>/mnt/a/second; touch /tmp/open; while [ ! -e /tmp/go ]; do usleep 50000; done
          echo "late" >&7; exec 7>&-; touch /tmp/closed; } >/tmp/said 2>&1 &
        while [ ! -e /tmp/open ]; do usleep 50000; done'
    stop_server
    expect "the server stops, with success" [ $? -eq 0 ]
    expect "what was written is on disk" here_is file 1000000 51
    # Two seconds: one that did not wait would have ended, or failed, at once.
    expect "a call waits for the server" guest '{ ls -l /mnt/a; touch /tmp/listed; } >/tmp/said.2 2>&1 &
        sleep 2; [ ! -e /tmp/listed ]'
    start_server
    expect "client B mounts after the restart" mount_as b other || return
    expect_text "and reads its files" $'b\'s\nb\'s' guest 'cat /mnt/b/file /mnt/b/second'
    expect "what A had begun ends, with or without success" guest '
        touch /tmp/go; while [ ! -e /tmp/closed ] || [ ! -e /tmp/listed ]; do usleep 50000; done'
    guest 'for i in 1 2; do echo by A >/mnt/a/second; echo by A >/mnt/a/new.$i; rm -f /mnt/a/file; mkdir /mnt/a/folder
        cat /mnt/a/second /mnt/a/file; mv /mnt/a/second /mnt/a/moved; done' >/dev/null
    expect_text "B's files are as they were" $'b\'s\nb\'s' cat "$work/other/file" "$work/other/second"
    expect_text "and there are no others" $'file\nsecond' ls "$work/other"
    expect "B goes on" guest 'echo "by B" >/mnt/b/second && echo more >/mnt/b/third'
    expect_text "with its own files" $'by B\nmore' cat "$work/other/second" "$work/other/third"
    expect "A unmounts" guest 'umount /mnt/a || umount -l /mnt/a' || return
    probe_again
    guest 'dmesg -c >/dev/null' # calls that waited for the server were told of
    expect "B unmounts" unmount b other
}

probe_again() {
    rm -rf "${work:?}/data"/*
    "$build/bin/kernel_probe" write "$work/data/fresh" 0 1000000 65536 52
    release a data
    expect "A mounts again" mount_as a data || return
    expect "and reads what is there" guest 'probe check /mnt/a/fresh 1000000 65536 52'
    expect "and writes" guest 'probe write /mnt/a/written 0 1000000 65536 53'
    expect "the host has it" here_is written 1000000 53
    expect "A unmounts" unmount a data
}
