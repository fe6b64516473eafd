#!/usr/bin/env bash
# Installs DuckDB's library below scripts/duckdb, for the tests of Parquet files. ./dev runs it.
# Does nothing when it is there.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/duckdb"

if [ ! -f node_modules/.package-lock.json ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
    npm ci --ignore-scripts --no-audit --no-fund --loglevel=error
    touch node_modules/.package-lock.json
fi
