# Debian packages that building and testing need, and what for. Sourced by ./dev.
# shellcheck shell=bash

vorn_packages=(
    "g++:compiler"
    "cmake:build system"
    "ninja-build:build system"
    "libpcap-dev:capture files"
    "libcli11-dev:command lines of the tools"
    "libfmt-dev:text output of the tools"
    "nlohmann-json3-dev:JSON output of the tools"
    "libssl-dev:checksums of captures"
    "libcpp-httplib-dev:the page of a running feed"
    "prometheus-cpp-dev:metrics of a running feed"
    "libnats-dev:vorn fanout and vorn tap"
    "libgtest-dev:tests"
    "libgmock-dev:tests"
    "libncurses-dev:screen of vorn top"
    "python3:reports, and tests against a model of the feed"
)
vorn_test_packages=( # a test that misses its own is left out
    "python3-numpy:tests of the bus and of research files from Python"
    "python3-matplotlib:tests of the pictures of a session"
    "man-db:tests of the manual"
    "lintian:tests of the packages"
    "systemd:tests of the service"
    "valgrind:instruction counts in the tests"
    "clang-14:coverage of the library by its tests"
    "libclang-rt-14-dev:counts for it"
    "llvm-14:reads them"
    "clang-tidy-14:static analysis of the library"
    "cppcheck:static analysis of the library"
    "tshark:tests of the Wireshark dissector"
    "tmux:tests of vorn top in a terminal"
    "chromium:tests of the page in a browser"
    "prometheus:tests of metrics and alerts"
    "nats-server:tests of vorn fanout and vorn tap"
)
vorn_docs_packages=(
    "doxygen:API pages of the documentation"
    "python3-markdown:site of the documentation"
)
vorn_lab_packages=(
    "iproute2:network namespaces of the lab"
    "ethtool:offloads of the lab's links"
)
vorn_package_packages=(
    "dpkg-dev:makes packages"
    "file:makes packages"
    "lintian:checks packages"
    "man-db:checks the manual"
    "pkgconf:checks that the library is found"
    "debootstrap:clean root that packages are installed in"
    "debian-archive-keyring:what debootstrap trusts"
)
vorn_clang_packages=(
    "clang-14:compiler of the fuzz targets and of the coverage build"
    "libclang-rt-14-dev:libFuzzer, sanitizers and profiles for it"
    "llvm-14:coverage reports, and names in a finding's stack"
)
vorn_lint_packages=(
    "clang-format-14:formatter"
    "clang-tidy-14:linter"
    "cppcheck:linter"
)
vorn_mutants_packages=(
    "python3-clang-14:syntax tree of the sources to be mutated"
)

# Installs what is missing of the packages named in the arguments ("name:purpose"). Touches neither
# the network nor the package database when nothing is missing.
vorn_install_packages() {
    local entry missing=() purposes=()
    if ! command -v dpkg-query > /dev/null; then
        echo "dev: this is not a Debian system; make sure that these are installed:" >&2
        printf '       %s\n' "$@" >&2
        return 0
    fi
    for entry in "$@"; do
        if ! dpkg-query -W -f='${Status}' "${entry%%:*}" 2> /dev/null | grep -q '^install ok'; then
            missing+=("${entry%%:*}")
            purposes+=("${entry%%:*} (${entry#*:})")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo > /dev/null; then
            echo "dev: missing Debian packages, and neither root nor sudo to install them. Run as root:" >&2
            echo "       apt-get install ${missing[*]}" >&2
            return 1
        fi
        sudo=(sudo)
    fi
    echo "dev: installing missing Debian packages${sudo:+ with sudo}:" >&2
    printf '       %s\n' "${purposes[@]}" >&2
    local log
    log=$(mktemp)
    export DEBIAN_FRONTEND=noninteractive
    if ! { "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}" ||
        { "${sudo[@]}" apt-get update &&
            "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; }; } \
        > "$log" 2>&1 < /dev/null; then
        tail -n 20 "$log" >&2
        rm -f "$log"
        echo "dev: could not install them; install by hand: apt-get install ${missing[*]}" >&2
        return 1
    fi
    rm -f "$log"
}

# Node and npm build the page. Any that are there will do; Debian's otherwise.
vorn_install_node() {
    if ! command -v node > /dev/null || ! command -v npm > /dev/null; then
        vorn_install_packages "nodejs:builds the page" "npm:builds the page"
    fi
}
