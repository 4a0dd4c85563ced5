# Sourced by the examples' run.sh, with "here" set to the example's folder: finds the library and a JDK, and makes
# "scratch", a folder that is removed when the example has ended, however it ends.

# find_library: sets "library" to NFSLIB, this tree's build, or the installation that the examples came with.
find_library() {
    library=$here/../../build/lib/libNfsLib.so
    [ -f "$library" ] || library=$here/../../../../../lib/libNfsLib.so
    library=${NFSLIB:-$library}
    [ -f "$library" ] || { echo "No library at $library; build it, or name it with NFSLIB" >&2; exit 1; }
}

# make_scratch: the example replaces this shell (exec), so that signals reach it; who cleans up behind it waits outside.
make_scratch() {
    scratch=$(mktemp -d)
    (
        trap '' INT TERM HUP
        tail --pid=$$ --sleep-interval=0.2 -f /dev/null
        rm -rf "$scratch"
    ) </dev/null >/dev/null 2>&1 &
}

# compile SOURCE...: sets "classes" to where the compiled classes are, CLASSES or a folder of the scratch.
compile() {
    command -v javac >/dev/null || { echo "No Java compiler (javac); on Debian: apt install default-jdk-headless" >&2; exit 1; }
    classes=${CLASSES:-$scratch/classes}
    mkdir -p "$classes"
    javac -encoding UTF-8 -Xlint:all -d "$classes" "$@" "$here"/../java-host/com/norvo/kbt/quickspin/nfs/*.java
}
