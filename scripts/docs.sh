#!/usr/bin/env bash
# Makes the site of the documentation: docs.sh [BUILD], in BUILD/docs/html (build by default). Run it as
# `./dev docs`, which installs what it needs. Warnings about the public headers are errors.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=${1:-$root/build}/docs
# The Debian package belongs to Debian's Python, which is not always the first.
for python in python3 /usr/bin/python3; do
    "$python" -c 'import markdown' 2> /dev/null && break
done
if ! "$python" -c 'import markdown' 2> /dev/null || ! command -v doxygen > /dev/null; then
    echo "docs: needs doxygen and Python's markdown; ./dev docs installs them" >&2
    exit 1
fi
rm -rf "$out"
mkdir -p "$out/html"
cd "$root"
version=$(sed -n 's/^project(vorn VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
"$python" -B scripts/docs_site.py "$out/html" "$version"
{
    cat docs/site/Doxyfile
    echo "OUTPUT_DIRECTORY = \"$out/html\""
    echo "PROJECT_NUMBER = \"$version\""
} | doxygen - > "$out/doxygen.log" 2>&1 || {
    grep -E 'warning|error' "$out/doxygen.log" >&2 || tail -n 20 "$out/doxygen.log" >&2
    exit 1
}
echo "$out/html/index.html"
