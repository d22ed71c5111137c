# shellcheck shell=bash
# install_packages PACKAGE...: installs those of the Debian packages that are
# not installed yet (through sudo unless run as root) and says which; returns
# non-zero when apt-get fails. Sourced by the scripts that need packages.

install_packages() {
    local package missing=() sudo=""
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' \
            || missing+=("$package")
    done
    [[ ${#missing[@]} -gt 0 ]] || return 0
    echo "Installing: ${missing[*]}" >&2
    [[ "$(id -u)" -eq 0 ]] || sudo="sudo"
    $sudo apt-get update -qq \
        && $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
}
