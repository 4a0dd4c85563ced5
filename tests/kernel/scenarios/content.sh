# Sourced by run.sh: scenarios about what is in files.

# checksums_agree [EXPORT]: every file below the export's folder has the same checksum on the host and in the guest,
# which has it mounted on /mnt/a.
checksums_agree() {
    local here_sums there_sums
    here_sums=$(cd "$work/${1:-data}" && find . -type f -exec md5sum {} + | LC_ALL=C sort -k 2)
    there_sums=$(guest 'cd /mnt/a && find . -type f -exec md5sum {} +' | LC_ALL=C sort -k 2)
    [ -n "$here_sums" ] && diff <(echo "$here_sums") <(echo "$there_sums")
}

# here_is PATH SIZE SEED: the file, below the export "data", holds this on the host.
here_is() {
    "$build/bin/kernel_probe" check "$work/data/$1" "$2" 1000000 "$3"
}

scenario_sizes() {
    local file block seed=0 sizes=(0 1 511 4096 65537 1048577) blocks=(512 4096 100000 1048576)
    if [ "$size" = whole ]; then
        sizes+=(8388608 67108864)
    else
        blocks=(512 100000)
    fi
    expect "mounted" mount_as a data || return
    for file in "${sizes[@]}"; do
        for block in "${blocks[@]}"; do
            [ $((file / block)) -lt 5000 ] || continue
            seed=$((seed + 1))
            expect "the client writes $file bytes in blocks of $block" \
                guest "probe write /mnt/a/$file.$block 0 $file $block $seed"
            expect "they are what the host reads" here_is "$file.$block" "$file" $seed
            "$build/bin/kernel_probe" write "$work/data/host.$file.$block" 0 "$file" $block $((seed + 100))
            expect "the client reads $file bytes of the host's in blocks of $block" \
                guest "probe check /mnt/a/host.$file.$block $file $block $((seed + 100))"
        done
    done
    expect "mounted again" remount a data || return
    expect "checksums agree on both sides" checksums_agree
    expect "unmounted" unmount a data
}

scenario_streams() {
    local options seed=1000 length=$((48 << 20)) ways=(wsize=16384,rsize=65536)
    [ "$size" = short ] || ways+=(wsize=1024,rsize=1024 wsize=4096,rsize=4096 wsize=8192,rsize=16384 nconnect=2)
    for options in "${ways[@]}"; do
        seed=$((seed + 1))
        expect "mounted with $options" mount_as a data "$options" || return
        expect "a stream is written with $options" guest "probe write /mnt/a/stream 0 $length 1048576 $seed" || return
        expect "the host has all of it" here_is stream $length $seed
        expect "mounted again" remount a data "$options" || return
        expect "the client reads it back with $options" guest "probe check /mnt/a/stream $length 1048576 $seed"
        expect "unmounted" unmount a data || return
    done
}

scenario_append() {
    local times
    times=$(by_size 300 100)
    expect "mounted" mount_as a data || return
    expect "$times lines are appended, each by an open of its own" guest "times=$times;"'
        for i in $(seq $times); do echo "line $i" >>/mnt/a/log || exit; done'
    expect "the host reads them" cmp <(seq -f 'line %g' "$times") "$work/data/log"

    expect "blocks of odd lengths are appended" guest '
        for i in $(seq 0 99); do probe write /mnt/a/blocks $((i * 1001)) 1001 1001 7 append || exit; done'
    expect "the host has them in order" here_is blocks 100100 7
    expect "a piece in the middle is overwritten" guest 'probe write /mnt/a/blocks 50001 3333 100 8'
    expect "it is there" cmp <(probe_bytes 7 0 50001 && probe_bytes 8 50001 3333 && probe_bytes 7 53334 46766) \
        "$work/data/blocks"

    expect "a file is cut and grown" guest '
        cd /mnt/a && probe write cut 0 100000 4096 9 && truncate -s 12345 cut && truncate -s 70000 cut'
    expect "zeros follow what was left" cmp <(probe_bytes 9 0 12345 && head -c 57655 /dev/zero) "$work/data/cut"
    expect "a long file is written anew, shorter" guest 'cd /mnt/a && echo short >cut && cat cut'
    expect_text "the host has the short one" short cat "$work/data/cut"

    expect "a byte is written far behind a file's end" guest '
        cd /mnt/a && echo x | dd of=sparse bs=1 count=1 seek=5000000 2>/dev/null'
    expect "all before it is zero" cmp <(head -c 5000000 /dev/zero && printf x) "$work/data/sparse"
    expect "the client sees the same after a new mount" remount a data && expect "checksums agree" checksums_agree
    expect "unmounted" unmount a data
}

# probe_bytes SEED OFFSET LENGTH: prints a piece of a pattern.
probe_bytes() {
    rm -f "$work/piece"
    "$build/bin/kernel_probe" write "$work/piece" "$2" "$3" 65536 "$1" && tail -c "+$(($2 + 1))" "$work/piece"
}

scenario_direct() {
    local length=$((8 << 20)) odd=3000001
    expect "mounted" mount_as a data || return
    expect "written with O_DIRECT" guest "probe write /mnt/a/direct 0 $length 524288 21 direct"
    expect "the host has it" here_is direct $length 21
    expect "read with O_DIRECT" guest "probe check /mnt/a/direct $length 524288 21 direct"
    expect "read with O_DIRECT in no order" guest "probe random /mnt/a/direct $length 60 21 direct"
    expect "a small block is replaced with O_DIRECT" guest 'probe write /mnt/a/direct 4096 4096 4096 22 direct'
    expect "it is there" cmp -n 4096 -i 4096:0 "$work/data/direct" <(probe_bytes 22 4096 4096)
    expect "written through a mapping" guest "probe map-write /mnt/a/mapped $odd 23"
    expect "the host has it" here_is mapped $odd 23
    "$build/bin/kernel_probe" write "$work/data/host" 0 $odd 65536 24
    expect "mounted again" remount a data || return
    expect "the host's file is read through a mapping" guest "probe map-check /mnt/a/host $odd 24"
    expect "the mapped file is read in no order" guest "probe random /mnt/a/mapped $odd 60 23"
    expect "checksums agree" checksums_agree
    expect "unmounted" unmount a data
}

# The file is made in the guest's memory: on the way to the server all of it is the data of WRITEs. A handle is a small
# number, so some of the calls in it would find the export's root, and files in it.
scenario_traffic() {
    expect "mounted" mount_as a data || return
    echo "dear" >"$work/data/victim"
    echo "dear, too" >"$work/data/report.txt"
    expect "the client knows both files" guest 'cat /mnt/a/victim /mnt/a/report.txt'
    expect "a capture is copied" guest 'probe traffic /tmp/capture victim && cp /tmp/capture /mnt/a/capture' || return
    expect "it is copied in small requests, too" guest '
        dd if=/tmp/capture of=/mnt/a/again bs=1000 conv=fsync 2>/dev/null'
    expect "the same is on the host" "$build/bin/kernel_probe" traffic "$work/capture" victim
    expect "the first copy is whole" cmp "$work/capture" "$work/data/capture"
    expect "the second copy is whole" cmp "$work/capture" "$work/data/again"
    expect_text "the file that a captured call would have removed is there" dear cat "$work/data/victim"
    expect_text "the file that a captured call would have written to is as it was" "dear, too" \
        cat "$work/data/report.txt"
    expect_text "there is nothing else" $'again\ncapture\nreport.txt\nvictim' ls "$work/data"
    expect "unmounted" unmount a data
}

scenario_redirected() {
    local host_pid file redirected_size
    redirected_size=$(by_size 40000001 10000001)
    mkdir -p "$work/redirected"
    coproc HOST { exec "$build/bin/redirected_host" "$work/redirected" redirected $redirected_size 31 2>&1; }
    host_pid=$HOST_PID
    expect_text "a host opens two redirected files" ready head -n 1 <&"${HOST[0]}"
    expect "mounted" mount_as a redirected && {
        for file in memory.img infofile.img; do
            expect "$file is read whole" guest "probe check /mnt/a/$file $redirected_size 1048576 31"
            expect "mounted again" remount a redirected || break
            expect "$file is read at random" guest "probe random /mnt/a/$file $redirected_size 150 31"
            expect "$file is read at random with O_DIRECT" guest \
                "probe random /mnt/a/$file $redirected_size 50 31 direct"
        done
        expect "four read at once" guest "
            for i in 1 2 3 4; do probe random /mnt/a/memory.img $redirected_size 50 31 >/tmp/reader.\$i || echo \$i & done
            wait; cat /tmp/reader.*; [ -z \"\$(cat /tmp/reader.*)\" ]"
        expect "a block is written" guest 'probe write /mnt/a/memory.img 8192 4096 4096 99'
        expect_text "the host is told" "write $work/redirected/memory.img 8192 4096" \
            timeout 5 head -n 1 <&"${HOST[0]}"
        expect "mounted again" remount a redirected
        expect "the content is the old one" guest "probe check /mnt/a/memory.img $redirected_size 1048576 31"
        expect "unmounted" unmount a redirected
    }
    exec {HOST[1]}>&-
    expect "the host of the redirected files ends well" wait_for "$host_pid" || kill -KILL "$host_pid"
    rm -rf "$work"/redirected*
}

# wait_for PID: until it has ended, for at most ten seconds.
wait_for() {
    local i
    for ((i = 0; i < 100; ++i)); do
        kill -0 "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    return 1
}
