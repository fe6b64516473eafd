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
for package in "$packages"/*.ddeb; do
    mv "$package" "${package%.ddeb}.deb"
done

lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$packages"/*.deb
echo "package: lintian has nothing to say"
cd "$packages"
for package in *.deb; do
    printf '%10s  build/packages/%s\n' "$(stat -c %s "$package")" "$package"
done
