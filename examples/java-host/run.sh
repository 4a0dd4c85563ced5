#!/usr/bin/env bash
# run.sh [DIRECTORY]: compiles and runs the example host. DIRECTORY (made if it is missing) is what it exports.
# NFSLIB names the library (default: this tree's build, or the installation that this example came with), CLASSES the folder for the compiled classes.
# The server needs port 111: run it as root, or in a network namespace.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
library=$here/../../build/lib/libNfsLib.so
[ -f "$library" ] || library=$here/../../../../../lib/libNfsLib.so
library=${NFSLIB:-$library}
classes=${CLASSES:-$here/classes}
directory=${1:-$(mktemp -d)/export}

command -v javac >/dev/null || { echo "No Java compiler (javac); on Debian: apt install default-jdk-headless" >&2; exit 1; }
[ -f "$library" ] || { echo "No library at $library; build it, or name it with NFSLIB" >&2; exit 1; }

mkdir -p "$classes"
javac -encoding UTF-8 -Xlint:all -d "$classes" "$here"/*.java "$here"/com/norvo/kbt/quickspin/nfs/*.java
# exec: signals reach the host itself.
exec java ${JAVA_OPTIONS:-} -cp "$classes" DiskHost "$library" "$directory"
