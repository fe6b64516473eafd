#!/usr/bin/env bash
# Installs the packages of build/packages in a Debian system of its own, in which there is nothing else of
# this project, and checks them there. Run it as `./dev package --clean-root`, as root.
#
# The system is made by debootstrap once, from the sources that this machine's apt has, and kept as
# build/clean-root.tar; remove that file for a newer one.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
suite=bookworm
kept=$root/build/clean-root.tar
clean=$root/build/clean-root

fail() {
    echo "clean-root: $1" >&2
    exit 1
}

# What a developer has who uses the library, and what reads the manual and checks the service.
tools=(g++ cmake make pkgconf python3 man-db systemd)

[ "$(id -u)" -eq 0 ] || fail "making a system needs root"
if [ "${VORN_CLEAN_ROOT_MOUNTS:-}" != own ]; then
    # Mounts of its own: they end with it, however it ends.
    VORN_CLEAN_ROOT_MOUNTS=own exec unshare --mount --propagation private "$0" "$@"
fi

in_clean() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        HOME=/root chroot "$clean" "$@"
}

# What programs expect, and no more of this machine than that.
mounted() {
    local device
    mount -t proc proc "$clean/proc" 2> /dev/null || mount --rbind /proc "$clean/proc"
    mount -t tmpfs -o mode=755 tmpfs "$clean/dev"
    for device in null zero full random urandom tty; do
        touch "$clean/dev/$device"
        mount --bind "/dev/$device" "$clean/dev/$device"
    done
    ln -s /proc/self/fd "$clean/dev/fd"
    mkdir "$clean/dev/shm"
    mount -t tmpfs -o mode=1777 tmpfs "$clean/dev/shm"
    mount -t tmpfs -o mode=1777 tmpfs "$clean/tmp"
    cp /etc/resolv.conf "$clean/etc/resolv.conf"
}

# Where this machine's apt gets the suite from, and how it gets there.
sources() {
    apt-get indextargets --format '$(SITE) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v suite="$suite" '$2 == suite || $2 == suite "-updates" || $2 == suite "-security"' | sort -u
}

if [ -d "$clean" ]; then
    rm -rf --one-file-system "$clean"
fi
mkdir -p "$clean"
if [ ! -f "$kept" ]; then
    mirror=$(sources | awk -v suite="$suite" '$2 == suite && $3 == "main" { print $1; exit }')
    [ -n "$mirror" ] || fail "the apt of this machine has no source of Debian $suite"
    echo "clean-root: making a Debian $suite (once)"
    debootstrap --variant=minbase "$suite" "$clean" "$mirror" > "$root/build/debootstrap.log" 2>&1 || {
        tail -n 20 "$root/build/debootstrap.log" >&2
        fail "debootstrap failed"
    }
    sources | sed 's/^/deb /' > "$clean/etc/apt/sources.list"
    apt-config dump | grep -E '^Acquire::(http|https)::' > "$clean/etc/apt/apt.conf.d/50here" || true
    (
        mounted
        in_clean apt-get update -q
        in_clean apt-get install -y -q --no-install-recommends "${tools[@]}"
    ) > "$root/build/debootstrap.log" 2>&1 || {
        tail -n 20 "$root/build/debootstrap.log" >&2
        fail "the system could not be made"
    }
    tar -C "$clean" --one-file-system -cf "$kept.part" .
    mv "$kept.part" "$kept"
else
    tar -C "$clean" -xf "$kept"
    mounted
fi

mkdir -p "$clean/packages" "$clean/checks"
cp "$root"/build/packages/*.deb "$clean/packages/"
cp "$root"/tests/packaging/{foreign.sh,installed_checks.sh} "$clean/checks/"
echo "clean-root: installing"
in_clean sh -c 'apt-get install -y -q --no-install-recommends /packages/*.deb' \
    > "$root/build/clean-root.log" 2>&1 || {
    tail -n 20 "$root/build/clean-root.log" >&2
    fail "the packages cannot be installed"
}
in_clean id vorn > /dev/null || fail "installing made no user for the service"
# As somebody who has no rights: the checks need none.
in_clean useradd --no-create-home somebody
chmod 1777 "$clean/checks"
in_clean setpriv --reuid somebody --regid somebody --init-groups \
    /checks/installed_checks.sh /checks "$root"

for program in "$clean"/usr/bin/{vorn,ApiDemoCallback} "$clean"/usr/lib/*/libvorn_md.so.0; do
    id=$(readelf -n "$program" | awk '/Build ID:/ { print $3 }')
    symbols=$clean/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    [ -f "$symbols" ] || fail "$program has no debug symbols"
    [[ $(readelf -SW "$symbols" 2> /dev/null) == *.debug_info* ]] || fail "the debug symbols of $program are none"
done

in_clean sh -c 'dpkg --purge $(dpkg-query -W -f "\${Package}\n" "*vorn*")' > "$root/build/clean-root.log" 2>&1 ||
    fail "the packages cannot be removed: $(cat "$root/build/clean-root.log")"
left=$(in_clean find / -xdev -name '*vorn*' -not -path '/packages/*' -not -path '/checks/*' \
    -not -path '/var/lib/systemd/*' -not -path '/var/log/*' -not -path '/var/cache/*')
[ -z "$left" ] || fail "removed, but there is still: $left"
umount -R "$clean/proc" "$clean/dev" "$clean/tmp"
rm -rf --one-file-system "$clean"
echo "clean-root: installed, checked and removed"
