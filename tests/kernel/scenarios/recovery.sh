# Sourced by run.sh: the instant-recovery example with the client it is meant for. The guest uses the disk under a layer
# of its own: the image is mounted from the export through a loop device, and an overlay takes what the guest changes.

# The example is a server of its own, so the console steps aside.
scenario_recovery() {
    local host_pid recovery=$work/recovery PATH=$PATH:/usr/sbin:/sbin
    command -v javac >/dev/null || { skip "no javac" && return; }
    command -v mke2fs >/dev/null || { skip "no mke2fs" && return; }
    make_disk || return
    stop_server
    expect "the console steps aside" [ $? -eq 0 ]
    coproc HOST {
        export NFSLIB=$build/lib/libNfsLib.so WORK=$recovery/work TMPDIR=$recovery
        exec "$here/../../examples/instant-recovery/run.sh" "$recovery/original.img" >"$recovery/host.log" 2>&1
    }
    host_pid=$HOST_PID
    expect "the host lends the disk" told 'Ready: ' && use_the_disk && change_the_disk_itself
    exec {HOST[1]}>&-
    wait "$host_pid"
    expect "the host writes the whole image out, and it is what was backed up" [ $? -eq 0 ] ||
        tail -n 20 "$recovery/host.log" | sed 's/^/        /'
    expect "byte for byte" grep -x 'Original: equal, byte for byte' "$recovery/host.log"
    expect "and clean" grep -x 'e2fsck: clean' "$recovery/host.log"
    rm -rf "$recovery"
    start_server
}

make_disk() {
    mkdir "$recovery" && "$build/bin/kernel_probe" tree "$recovery/tree" &&
        "$build/bin/kernel_probe" write "$recovery/tree/large" 0 5000001 65536 61 &&
        echo "as it was backed up" >"$recovery/tree/notes" &&
        truncate -s "$(by_size 64M 24M)" "$recovery/original.img" &&
        mke2fs -q -t ext4 -d "$recovery/tree" "$recovery/original.img"
    expect "a disk is made" [ $? -eq 0 ]
}

# told LINE: waits until the host has printed it, for at most a minute.
told() {
    local i
    for ((i = 0; i < 600; ++i)); do
        ! grep -q "^$1" "$recovery/host.log" || return 0
        sleep 0.1
    done
    cat "$recovery/host.log"
    return 1
}

use_the_disk() {
    expect "mounted" mount_as a recovery || return
    expect "the disk is mounted below an overlay" guest '
        modprobe -a loop overlay && mkdir /tmp/disk /tmp/layer /tmp/recovered && mount -t tmpfs none /tmp/layer &&
            mkdir /tmp/layer/upper /tmp/layer/work && mount -t ext4 -o ro,loop /mnt/a/disk.img /tmp/disk &&
            mount -t overlay -o lowerdir=/tmp/disk,upperdir=/tmp/layer/upper,workdir=/tmp/layer/work none /tmp/recovered' ||
        return
    expect "what was backed up is there" disk_holds_the_tree /tmp/recovered
    expect "the client changes, adds, moves and removes files" guest '
        cd /tmp/recovered && echo "and changed" >>notes && probe write large 70000 3000 1000 62 && echo new >new &&
            mv folder1 moved && rm -r folder2 && cp -r folder3 copied && sync'
    expect_text "it sees its changes" $'as it was backed up\nand changed\nnew' \
        guest 'cat /tmp/recovered/notes /tmp/recovered/new'
    expect "and its folders" guest '
        cd /tmp/recovered && [ -d moved ] && [ ! -e folder1 ] && [ ! -e folder2 ] && diff -r folder3 copied'
    guest 'umount /tmp/recovered /tmp/disk && echo 3 >/proc/sys/vm/drop_caches'
    expect "the disk is let go of" [ $? -eq 0 ]
    expect "mounted again" remount a recovery
    expect "the disk by itself is mounted" guest 'mount -t ext4 -o ro,loop /mnt/a/disk.img /tmp/disk'
    expect "it holds what was backed up, and nothing else" disk_holds_the_tree /tmp/disk
    expect "it is let go of again" guest 'umount /tmp/disk /tmp/layer'
    expect "the host has heard of no change" fails grep -E '^(granted|refused) in' "$recovery/host.log"
}

disk_holds_the_tree() {
    diff <(cd "$recovery/tree" && find . -type f -exec md5sum {} + | LC_ALL=C sort -k 2) \
        <(guest "cd $1 && find . -type f -exec md5sum {} +" | LC_ALL=C sort -k 2)
}

change_the_disk_itself() {
    expect "a write to the disk itself fails" fails guest '
        dd if=/dev/zero of=/mnt/a/disk.img bs=4096 count=1 seek=4 conv=notrunc,fsync'
    expect "the host has refused it" told 'refused in recovery: write of \[16384, 20480)'
    expect "one to the boot block does not" guest '
        dd if=/dev/zero of=/mnt/a/disk.img bs=512 count=1 conv=notrunc,fsync'
    expect "the host has granted it" told 'granted in recovery: write of \[0, '
    expect "the disk is not renamed" fails guest 'mv /mnt/a/disk.img /mnt/a/other'
    expect "nor removed for good" fails guest 'rm /mnt/a/disk.img'
    expect "the host has refused both" told 'refused in recovery: removal of '
    expect "mounted again" remount a recovery
    expect "the disk is there, and whole" guest 'mount -t ext4 -o ro,loop /mnt/a/disk.img /tmp/disk'
    expect "it holds what was backed up" disk_holds_the_tree /tmp/disk
    guest 'umount /tmp/disk'
    expect "unmounted" unmount a recovery
}
