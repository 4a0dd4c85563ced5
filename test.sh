#!/usr/bin/env bash
# Builds everything and runs every test. See usage.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source tools/packages.sh

usage() {
    cat <<'USAGE'
usage: ./test.sh [--sanitizers | --lint | --package] [CTEST_OPTION...]
       ./test.sh --kernel-client [--short] [WORD]
  (no option)    formatting, then the plain build (build/) and every test
  --sanitizers   every test but those in a Java virtual machine with AddressSanitizer and
                 UndefinedBehaviorSanitizer (build-asan/), then with ThreadSanitizer (build-tsan/)
  --lint         formatting, clang's thread-safety analysis, clang-tidy (takes long)
  --package      builds the Debian package, and tries it in a throw-away copy of this root (as root)
  --kernel-client
                 the Linux kernel's own client, in a virtual machine, against the built console: at most 10 minutes;
                 with --short at most 3; with a WORD only the scenarios whose description holds it
CTEST_OPTIONs go to ctest: ./test.sh -R NfsMain runs the tests whose names hold "NfsMain".
USAGE
}

BUILD_PACKAGES=(cmake g++ ninja-build pkg-config libtirpc-dev libnfs-dev)
TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev rpcbind iproute2 nftables e2fsprogs binutils util-linux
    default-jdk-headless systemd groff-base logrotate python3)
PLAIN_OPTIONS=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DNFSLIB_TOOLS=ON -DNFSLIB_BENCH=ON)
KERNEL_CLIENT_PACKAGES=(libgtest-dev libgmock-dev iproute2 util-linux qemu-system-x86 busybox-static cpio e2fsprogs
    default-jdk-headless)
jobs=$(nproc)

sources() {
    git ls-files -- '*.h' '*.cpp' 2>/dev/null || find src tests tools bench include -name '*.h' -o -name '*.cpp'
}

check_format() {
    local version
    if ! version=$(clang-format --version 2>/dev/null); then
        echo "Formatting: NOT CHECKED, clang-format is not installed"
    elif [[ $version != *"version 14."* ]]; then
        echo "Formatting: NOT CHECKED, clang-format 14 decides, this is: $version"
    else
        sources | xargs clang-format --dry-run -Werror
        echo "Formatting: OK"
    fi
}

# configure FOLDER OPTION...
configure() {
    local folder=$1
    shift
    local generator=()
    [ -e "$folder/CMakeCache.txt" ] || generator=(-G Ninja)
    cmake -S . -B "$folder" "${generator[@]}" -DNFSLIB_TESTS=ON -DNFSLIB_WERROR=ON "$@" >"$folder.log" 2>&1 || {
        cat "$folder.log" >&2
        return 1
    }
    rm -f "$folder.log"
}

# build FOLDER [CMAKE_OPTION...]: says nothing unless it fails.
build() {
    local start=$SECONDS
    if ! cmake --build "$@" -j "$jobs" >"$1/build.log" 2>&1; then
        grep -E 'FAILED|error|Error|undefined reference' -A 5 "$1/build.log" | head -100 >&2
        echo "test.sh: the build failed; all of it: $1/build.log" >&2
        return 1
    fi
    echo "Built $1 in $((SECONDS - start)) s"
}

# run FOLDER [PREFIX...] -- CTEST_OPTION...: prints failures and ctest's summary; in CI a skipped test is a failure.
run() {
    local folder=$1 prefix=() status=0
    shift
    while [ "$1" != -- ]; do
        prefix+=("$1")
        shift
    done
    shift
    "${prefix[@]}" ctest --test-dir "$folder" --output-on-failure --no-tests=error -j "$jobs" "$@" 2>&1 |
        tee "$folder/ctest.log" |
        { grep -vE '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test +#[0-9]+: .* Passed )' || true; } || status=$?
    if [ "${CI:-}" = true ] && grep -qE '\*\*\*(Skipped|Not Run)' "$folder/ctest.log"; then
        echo "test.sh: tests were skipped, but nothing may be missing in CI" >&2
        status=1
    fi
    return $status
}

plain() {
    need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" clang-format
    check_format
    configure build "${PLAIN_OPTIONS[@]}"
    build build
    run build -- -j $((2 * jobs)) "$@" # many tests wait more than they work
}

sanitizers() {
    need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    echo "The tests in a real virtual machine run in the plain build only: a JVM cannot load a sanitized library"
    local options=(-DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g1" -DNFSLIB_TOOLS=ON -DNFSLIB_BENCH=OFF)
    configure build-asan "${options[@]}" -DNFSLIB_SANITIZE=address,undefined
    build build-asan
    run build-asan -- "$@"

    configure build-tsan "${options[@]}" -DNFSLIB_SANITIZE=thread
    build build-tsan
    # ThreadSanitizer wants the addresses of an unrandomized process; where that may not be had it copes or says so.
    local fixed=(setarch "$(uname -m)" -R)
    "${fixed[@]}" true 2>/dev/null || fixed=()
    run build-tsan "${fixed[@]}" -- "$@"
}

kernel_client() {
    need_packages "${BUILD_PACKAGES[@]}" "${KERNEL_CLIENT_PACKAGES[@]}"
    configure build "${PLAIN_OPTIONS[@]}"
    build build --target nfsconsole nfsget kernel_probe redirected_host
    tests/kernel/run.sh build "$@"
}

lint() {
    need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" clang clang-format clang-tidy
    check_format
    configure build-lint -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DNFSLIB_TOOLS=ON -DNFSLIB_BENCH=ON \
        -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
    build build-lint
    echo "Thread-safety analysis: OK"
    sources | grep '\.cpp$' | xargs -P "$jobs" -n 1 clang-tidy -p build-lint --quiet 2>/dev/null
    echo "clang-tidy: OK"
}

package() {
    need_packages "${BUILD_PACKAGES[@]}" dpkg-dev file iproute2 util-linux
    configure build "${PLAIN_OPTIONS[@]}"
    build build
    (cd build && rm -f nfslib_*.deb && cpack -G DEB) >build/package.log 2>&1 || {
        cat build/package.log >&2
        return 1
    }
    packaging/try-package build/nfslib_*.deb
}

mode=plain
case "${1:-}" in
    --sanitizers) mode=sanitizers && shift ;;
    --lint) mode=lint && shift ;;
    --package) mode=package && shift ;;
    --kernel-client) mode=kernel_client && shift ;;
    -h | --help) usage && exit 0 ;;
esac
"$mode" "$@"
