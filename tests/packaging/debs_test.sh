#!/usr/bin/env bash
# debs_test.sh SOURCE BUILD WORK: makes the packages of a build, unpacks them over this machine's /usr in
# a root of their own, in which neither the source nor the build tree exists, and checks them there.
# Status 77 when this user can make no mount namespace: the test is then skipped.
set -euo pipefail

source_tree=$1
build=$2
work=$3

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

rm -rf "$work"
mkdir -p "$work/packages" "$work/unpacked" "$work/bare" "$work/checks"
cpack --config "$build/CPackConfig.cmake" -B "$work/packages" > "$work/cpack.log" 2>&1 || {
    cat "$work/cpack.log" >&2
    fail "cpack"
}
rm -rf "$work/packages/_CPack_Packages"
ls "$work/packages"
[ "$(find "$work/packages" -name '*.deb' | wc -l)" -eq 5 ] || fail "there should be five packages"
if command -v lintian > /dev/null; then
    lintian --allow-root --fail-on error --tag-display-limit 0 "$work"/packages/*.deb || fail "lintian"
    echo "lintian: no errors"
fi

for package in "$work"/packages/*.deb; do
    dpkg-deb -x "$package" "$work/unpacked"
done
cp "$source_tree"/tests/packaging/{foreign.sh,installed_checks.sh} "$work/checks/"

# In the new root: this machine's /usr below that of the packages, its /etc, and the checks.
cat > "$work/enter.sh" << 'END'
set -euo pipefail
bare=$1 unpacked=$2 checks=$3
shift 3
mount -t tmpfs tmpfs "$bare"
mkdir -p "$bare"/{usr,etc,tmp,proc,dev,run,var/tmp,checks}
chmod 1777 "$bare/tmp" "$bare/var/tmp"
for name in bin sbin lib lib32 lib64 libx32; do
    [ ! -L "/$name" ] || ln -s "usr/$name" "$bare/$name"
done
mount -t overlay overlay -o "lowerdir=$unpacked/usr:/usr" "$bare/usr"
mount --rbind /etc "$bare/etc"
mount --rbind /proc "$bare/proc"
mount --rbind /dev "$bare/dev"
mount --bind "$checks" "$bare/checks"
exec env PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot "$bare" /checks/installed_checks.sh /checks "$@"
END

namespace=(unshare --mount)
[ "$(id -u)" -eq 0 ] || namespace=(unshare --user --map-root-user --mount)
if ! "${namespace[@]}" sh -c 'mount -t tmpfs tmpfs "$1" && mkdir "$1/usr" &&
        mount -t overlay overlay -o "lowerdir=$2:/usr" "$1/usr"' sh "$work/bare" "$work/unpacked/usr" \
    2> /dev/null; then
    echo "SKIPPED: this user can make no mount namespace here"
    exit 77
fi
"${namespace[@]}" bash "$work/enter.sh" "$work/bare" "$work/unpacked" "$work/checks" \
    "$source_tree" "$build"
