#!/usr/bin/env bash
# foreign.sh PROJECTS WORK: builds and runs the four foreign projects PROJECTSc, PROJECTScmake,
# PROJECTSpkgconfig and PROJECTSpython (a folder with a slash, or the beginning of names) in the folder
# WORK, with whatever compiler, CMake, pkg-config and Python find: the caller has installed Vorn
# where they look, or has told them (CMAKE_PREFIX_PATH, PKG_CONFIG_PATH, LD_LIBRARY_PATH, PYTHONPATH).
#
# Every one of them sees the same session, so all must count the same updates.
set -euo pipefail

projects=$1
work=$2
python=${FOREIGN_PYTHON:-python3}
bus=packaging-$$

fail() {
    echo "FAILED: $1" >&2
    exit 1
}
trap 'rm -f "/dev/shm/vorn.$bus.bus" "/dev/shm/vorn.$bus.bus.lock"' EXIT

mkdir -p "$work"
cd "$work"
# The last CPU this process may use: the first is where a machine does its chores.
cpu=$(taskset -pc $$ 2> /dev/null | grep -oE '[0-9]+$' || echo 0)
cat > session.ini << END
[config]
device = sim:seed=11&changes=20000&instruments=60&eof=stop
insts = all
shfe2ps = enabled
ine2ps = enabled
cpucore = $cpu
log_level = 1
END

expected=
runs() { # NAME COMMAND...: it prints "updates N restarts 0", with the N of all the others
    local name=$1 said
    shift
    said=$("$@" 2> "$work/$name.log" | grep '^updates ') || {
        cat "$work/$name.log" >&2
        fail "$name does not run"
    }
    [[ $said =~ ^updates\ [1-9][0-9]*\ restarts\ 0$ ]] || fail "$name said '$said'"
    [ -z "$expected" ] || [ "$said" = "$expected" ] ||
        fail "$name said '$said', those before it '$expected'"
    expected=$said
    echo "$name: $said"
}

builds_with_cmake() { # NAME
    cmake -S "$projects$1" -B "$work/$1" -DCMAKE_BUILD_TYPE=Release > "$1.log" 2>&1 &&
        cmake --build "$work/$1" >> "$1.log" 2>&1 || {
        cat "$1.log" >&2
        fail "$1 does not build"
    }
}

builds_with_cmake c
runs "C, find_package" c/consumer session.ini
runs "C, find_package, software card" c/consumer_test session.ini
# The first has the feed from the library that is installed, the other in itself.
[[ $(ldd c/consumer) == *"libvorn_md.so.0 => /"* ]] || fail "consumer has its own feed"
[[ $(ldd c/consumer_test) != *libvorn* ]] || fail "consumer_test has no feed of its own"

builds_with_cmake cmake
runs "C++, find_package" cmake/strategy session.ini
runs "C++, find_package, software card" cmake/strategy_test session.ini

mkdir -p pkgconfig
cp "${projects}pkgconfig"/* pkgconfig/
make -s -C pkgconfig > pkgconfig.log 2>&1 || {
    cat pkgconfig.log >&2
    fail "pkgconfig does not build"
}
runs "C++, pkg-config" pkgconfig/counter session.ini
runs "C++, pkg-config, software card" pkgconfig/counter_test session.ini

vorn publish --config session.ini --bus "$bus" -q > publish.log 2>&1 || {
    cat publish.log >&2
    fail "vorn publish"
}
runs "Python" "$python" "${projects}python/research.py" "$bus"
[[ $(cmake/watcher "$bus") =~ ^instruments\ [1-9][0-9]*$ ]] || fail "watcher"
echo "the four foreign projects agree"
