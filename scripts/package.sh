#!/usr/bin/env bash
# Makes the Debian packages in build/packages. Run it as `./dev package`, which builds and installs what
# it needs.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
packages=$root/build/packages

# The newest change, not the time of day: the same tree gives the same packages.
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
    SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct 2> /dev/null ||
        stat -c %Y "$root/packaging/debian/changelog")
    export SOURCE_DATE_EPOCH
fi

rm -rf "$packages"
mkdir -p "$packages"
log=$packages/cpack.log
if ! cpack --config "$root/build-package/CPackConfig.cmake" -B "$packages" > "$log" 2>&1; then
    cat "$log" >&2
    exit 1
fi
rm -rf "$packages/_CPack_Packages" "$log"
# CPack names the files of a package of debug symbols by where they lay in the build, and gives it no
# documents: mended here.
for package in "$packages"/*.ddeb; do
    unpacked=$(mktemp -d)
    name=$(dpkg-deb -f "$package" Package)
    dpkg-deb -R "$package" "$unpacked"
    chmod 755 "$unpacked"
    mkdir -p "$unpacked/usr/share/doc"
    ln -s "${name%-dbgsym}" "$unpacked/usr/share/doc/$name"
    (cd "$unpacked" && find usr -type f -print0 | sort -z | xargs -0 md5sum > DEBIAN/md5sums)
    dpkg-deb --root-owner-group -b "$unpacked" "${package%.ddeb}.deb" > /dev/null
    rm -rf "$unpacked" "$package"
done

lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$packages"/*.deb
echo "package: lintian has nothing to say"
cd "$packages"
for package in *.deb; do
    printf '%10s  build/packages/%s\n' "$(stat -c %s "$package")" "$package"
done
