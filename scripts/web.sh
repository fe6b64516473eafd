#!/usr/bin/env bash
# Builds the page that `vorn serve` shows into web/dist. Run it as `./dev web`, which installs what
# it needs. Does nothing when nothing has changed.
set -euo pipefail

web=$(cd "$(dirname "${BASH_SOURCE[0]}")/../web" && pwd)
cd "$web"

if ! node -e 'process.exit(Number(process.versions.node.split(".")[0]) >= 18 ? 0 : 1)'; then
    echo "web: node is too old ($(node --version)); the page needs 18 or newer to be built" >&2
    exit 1
fi
if [ ! -f node_modules/.package-lock.json ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
    npm ci --ignore-scripts --no-audit --no-fund --loglevel=error
    touch node_modules/.package-lock.json
fi
if [ ! -f dist/index.html ] ||
    [ -n "$(find src build.mjs package-lock.json tsconfig.json -newer dist/index.html -print -quit)" ]; then
    node_modules/.bin/tsc --noEmit
    node build.mjs
    touch dist/index.html
fi
