#!/usr/bin/env bash
# run.sh [DIRECTORY]: compiles and runs the example host. DIRECTORY (made if it is missing) is what it exports; without
# one it is a new one below /tmp, which goes when the host ends.
# NFSLIB names the library (default: this tree's build, or the installation that this example came with), CLASSES the
# folder for the compiled classes (default: a new one below /tmp as well).
# The server needs port 111: run it as root, or in a network namespace.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../support.sh"
find_library
make_scratch
compile "$here"/*.java
# exec: signals reach the host itself.
exec java ${JAVA_OPTIONS:-} -cp "$classes" DiskHost "$library" "${1:-$scratch/export}"
