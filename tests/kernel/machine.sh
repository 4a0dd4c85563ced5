# Sourced by run.sh: the guest, a virtual machine that runs Debian's cloud kernel with a busybox for a system.

# ---- What it is made of ----------------------------------------------------------------------------------------------

# fetch_kernel FOLDER: unpacks the kernel's package below the folder, unless one is there, and sets "kernel" to its place.
# The package is never installed. As apt-get download needs no rights, an ordinary user can do it, too.
fetch_kernel() {
    local package
    kernel=$(find "$1" -mindepth 1 -maxdepth 1 -name 'linux-image-*' ! -name '*.part' 2>/dev/null | sort -V | tail -n 1)
    [ -z "$kernel" ] || return 0
    command -v apt-get >/dev/null || fail "no kernel in $1, and no apt to fetch one from Debian"
    package=$(kernel_package)
    if [ -z "$package" ] && [ "$(id -u)" -eq 0 ]; then
        apt-get update >/dev/null 2>&1 || true # the next line finds out
        package=$(kernel_package)
    fi
    [ -n "$package" ] || fail "apt knows no linux-image-cloud-amd64: apt-get update, or Debian's sources, are missing"
    echo "Fetching the kernel: $package, unpacked into $1 (30 MB), not installed"
    kernel=$1/$package
    mkdir -p "$kernel.part"
    (
        cd "$kernel.part" && apt-get -q download "$package" && dpkg-deb -x ./*.deb . && rm ./*.deb
        version=$(cd lib/modules && echo *)
        busybox depmod -b . "$version" 2>&1
    ) >"$kernel.log" 2>&1 || { cat "$kernel.log" >&2 && fail "could not fetch $package"; }
    rm -f "$kernel.log"
    mv "$kernel.part" "$kernel"
}

# The package behind the one that always means the newest kernel.
kernel_package() {
    apt-cache depends linux-image-cloud-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p' | head -n 1
}

# make_initramfs FILE: busybox, the probe, the first process, and the modules of the network card, of NFS, of disks in
# files and of overlays.
make_initramfs() {
    local root=$work/initramfs version modules module
    version=$(cd "$kernel/lib/modules" && echo *)
    modules=$root/lib/modules/$version
    mkdir -p "$root"/{bin,proc,sys,dev,tmp} "$modules"
    cp "$(command -v busybox)" "$root/bin/busybox"
    cp "$build/bin/kernel_probe" "$root/bin/probe"
    cp "$here/guest/init" "$root/init"
    cp "$kernel/lib/modules/$version"/modules.{dep,builtin} "$modules" 2>/dev/null || true
    for module in virtio_pci virtio_net nfsv3 loop overlay; do
        add_module "$kernel/lib/modules/$version" "$modules" "$module"
    done
    (cd "$root" && find . | cpio -o -H newc --quiet -R 0:0 | gzip -1) >"$1"
    rm -rf "$root"
}

# add_module FROM TO NAME: copies the module and all it depends on.
add_module() {
    local file
    for file in $(sed -n "s|^\([^:]*/$3\.ko[^:]*\):|\1|p" "$1/modules.dep"); do
        [ -e "$2/$file" ] || { mkdir -p "$2/$(dirname "$file")" && cp "$1/$file" "$2/$file"; }
    done
}

# ---- Running it ------------------------------------------------------------------------------------------------------

qemu_pid=

# boot: starts the guest and waits, for a minute at most, until it takes commands. Its console goes to a file, the commands through a second
# serial port (guest/init tells how).
boot() {
    mkfifo "$work/agent.in" "$work/agent.out"
    exec {to_guest}<>"$work/agent.in" {from_guest}<>"$work/agent.out"
    qemu-system-x86_64 -accel "$accelerator" -m 512 -smp 1 -nodefaults -no-user-config -display none -no-reboot \
        -kernel "$work/vmlinuz" -initrd "$work/initramfs.gz" \
        -append "console=ttyS0 quiet panic=-1 mitigations=off no_timer_check" \
        -serial "file:$work/guest.log" -chardev "pipe,id=agent,path=$work/agent" -serial chardev:agent \
        -netdev user,id=net -device virtio-net-pci,netdev=net,romfile= >"$work/qemu.log" 2>&1 &
    qemu_pid=$!
    scenario_end=$((SECONDS + 60))
    answer >/dev/null
}

# power_off: ends the guest at once, in whatever state it is.
power_off() {
    [ -n "$qemu_pid" ] || return 0
    kill -KILL "$qemu_pid" 2>/dev/null || true
    wait "$qemu_pid" 2>/dev/null || true
    qemu_pid=
    exec {to_guest}>&- {from_guest}>&-
    rm -f "$work"/agent.{in,out}
}

# guest COMMAND: runs a shell command in the guest and prints what it printed. Returns its exit status, or 124 when the
# scenario's time is up.
guest() {
    [ ! -e "$work/hung" ] || return 124
    printf '%s\n' "$(printf %s "$1" | base64 -w 0)" >&"$to_guest"
    answer
}

# answer: reads what the guest says until the status line.
answer() {
    local line='' part
    while :; do
        if IFS= read -r -t 1 -u "$from_guest" part; then
            line+=$part
            case $line in
                '|'*) printf '%s\n' "${line#|}" ;;
                =ready) return 0 ;;
                =*) return "${line#=}" ;;
            esac
            line=
        else
            line+=$part
            if ((SECONDS >= scenario_end)) || ! kill -0 "$qemu_pid" 2>/dev/null; then
                : >"$work/hung"
                echo "the guest does not answer"
                return 124
            fi
        fi
    done
}
