#!/usr/bin/env bash
# prefix_test.sh SOURCE BUILD PYTHON WORK: installs the build below a prefix of its own, and builds and
# runs the foreign projects from there, told where it is by nothing but the environment.
set -euo pipefail

source_tree=$1
build=$2
export FOREIGN_PYTHON=$3
work=$4

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

rm -rf "$work"
mkdir -p "$work"
# Moved after installing: nothing may remember where it was.
cmake --install "$build" --prefix "$work/installed" > "$work/install.log"
mv "$work/installed" "$work/prefix"
prefix=$work/prefix
libraries=$(dirname "$(find "$prefix" -name 'libvorn_md.so')")
export PATH=$prefix/bin:$PATH CMAKE_PREFIX_PATH=$prefix LD_LIBRARY_PATH=$libraries
export PKG_CONFIG_PATH=$libraries/pkgconfig PYTHONPATH=$prefix/lib/python3/dist-packages
export PYTHONDONTWRITEBYTECODE=1
[ "$(command -v vorn)" = "$prefix/bin/vorn" ] || fail "vorn is not the installed one"

if names=$(grep -rlF -e "$source_tree" -e "$build" "$prefix"); then
    fail "these files name the folder that they were built in: $names"
fi

# What programs are bound to.
[[ $(readelf -d "$libraries/libvorn_md.so") == *"Library soname: [libvorn_md.so.0]"* ]] ||
    fail "the shared library has no versioned name"

"$source_tree/tests/packaging/foreign.sh" "$source_tree/tests/packaging/foreign_" "$work/foreign"

# With the card maker's library, found by its own module.
mkdir -p "$work/maker/lib" "$work/maker/include"
cp -r "$source_tree/softcard/include/exanic" "$work/maker/include/"
cc -c -fPIC -I "$work/maker/include" -o "$work/card.o" "$source_tree/tests/packaging/stand_in_card.c"
ar rc "$work/maker/lib/libexanic.a" "$work/card.o"
cmake -S "$source_tree/tests/packaging/foreign_card" -B "$work/foreign_card" \
    -DExanic_ROOT="$work/maker" > "$work/card.log" 2>&1 &&
    cmake --build "$work/foreign_card" >> "$work/card.log" 2>&1 || {
    cat "$work/card.log" >&2
    fail "foreign_card does not build"
}
sed 's/^device.*/device = exanic0/; s/^log_level.*/log_level = 7/' "$work/foreign/session.ini" \
    > "$work/card.ini"
cd "$work"
if foreign_card/card_user card.ini > card.log 2>&1 || ! grep -q 'this machine has no card' card.log; then
    cat card.log >&2
    fail "card_user does not use the card maker's library"
fi
if cmake -S "$source_tree/tests/packaging/foreign_card" -B "$work/no_card" > no_card.log 2>&1 ||
    ! grep -q "Install the card maker's software package" no_card.log; then
    fail "without the card maker's library nothing is said about it"
fi
echo "installed, moved, and used"
