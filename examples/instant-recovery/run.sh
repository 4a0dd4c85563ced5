#!/usr/bin/env bash
# Instant recovery, from a disk's image to the image written out again. See usage.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../support.sh"

usage() {
    cat <<'USAGE'
usage: run.sh [IMAGE]
Cuts an ext4 IMAGE (default: a new one, with the sources of this example in it) into pieces of stored files, as a backup
program would have left them, and lends the disk that they make up to NFS clients as "recovery/disk.img". Enter, or the
end of the input, writes the whole image out, lets e2fsck judge it and compares it with IMAGE; Ctrl-C gives up.
Ends with 0 if the image is whole. The server needs port 111: run it as root, or in a network namespace.
  RULES    the file that says which changes by clients are granted (default: rules.txt beside this script)
  WORK     keeps there what was made: backup, record of changes, the written image (default: a scratch folder that goes)
  NFSLIB   the library (default: this tree's build, or the installation that this example came with)
  CLASSES  the folder for the compiled classes (default: in the scratch folder)
USAGE
}

case "${1:-}" in
    -h | --help) usage && exit 0 ;;
esac
[ $# -le 1 ] || { usage >&2 && exit 2; }
PATH=$PATH:/usr/sbin:/sbin
for program in mke2fs e2fsck; do
    command -v $program >/dev/null || { echo "No $program; on Debian: apt install e2fsprogs" >&2; exit 1; }
done
find_library
make_scratch
compile "$here"/*.java "$here/../java-host/WrittenRanges.java"
work=${WORK:-$scratch/work}
image=${1:-$scratch/original.img}
[ $# -eq 1 ] || { truncate -s 16M "$image" && mke2fs -q -t ext4 -d "$here" "$image"; }

java -cp "$classes" CutImage "$image" "$work/backup"
# exec: signals, and Enter, reach the host itself.
exec java ${JAVA_OPTIONS:-} -Djava.library.path="$(cd "$(dirname "$library")" && pwd)" -cp "$classes" \
    RecoveryHost "$work/backup" "${RULES:-$here/rules.txt}" "$work" "$image"
