# deps.sh: sourced by run.sh and test.sh. Installs, with apt-get, the Debian
# packages of the given list that are missing; does nothing when all are there.
velmora_install() {
    local missing=()
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq || true
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}

VELMORA_BUILD_PACKAGES=(cmake ninja-build g++ pkg-config)
