# Sourced by serve.sh and test.sh: installs Debian packages that are missing, after saying so.

# need_packages PACKAGE...: does nothing, and needs no network, when all of them are installed.
need_packages() {
    local missing=() package
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        echo "$(basename "$0"): no apt here; the build needs what these Debian packages hold: $*" >&2
        return 0
    fi
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "$(basename "$0"): packages are missing; install them first: sudo apt-get install ${missing[*]}" >&2
        return 1
    fi
    echo "Installing: ${missing[*]}"
    install_quietly "${missing[@]}"
}

# Packages that bring a service (rpcbind) must not start it: it would take port 111.
install_quietly() {
    local policy=/usr/sbin/policy-rc.d log status=0
    log=$(mktemp)
    if [ ! -e "$policy" ]; then
        printf '#!/bin/sh\nexit 101\n' >"$policy"
        chmod 755 "$policy"
    else
        policy=
    fi
    export DEBIAN_FRONTEND=noninteractive
    { apt-get update && apt-get install -y --no-install-recommends "$@"; } >"$log" 2>&1 </dev/null || status=$?
    [ -z "$policy" ] || rm -f "$policy"
    if [ $status -ne 0 ]; then
        cat "$log" >&2
        echo "$(basename "$0"): apt-get could not install: $*" >&2
    elif [[ " $* " == *" rpcbind "* ]] && command -v systemctl >/dev/null; then
        systemctl disable rpcbind.service rpcbind.socket >/dev/null 2>&1 || true  # without systemd running
    fi
    rm -f "$log"
    return $status
}
