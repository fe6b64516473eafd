#!/usr/bin/env bash
# Records a simulated session with the unmodified recorder and reports what came out. Run it as
# `./dev demo`, which builds what it needs.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$root/build/bin
seed=7
changes=1000000
instruments=400

usage() {
    cat << 'END'
usage: ./dev demo [--seed N] [--changes N] [--instruments N]

  --seed N         seed of the session; the same seed gives the same rows (default 7)
  --changes N      about how many changes the session has (default 1000000)
  --instruments N  instruments of both exchanges together (default 400)
END
}

while [ $# -gt 0 ]; do
    case $1 in
    -h | --help)
        usage
        exit 0
        ;;
    --seed | --changes | --instruments)
        if [[ ! ${2:-} =~ ^[0-9]+$ ]]; then
            echo "demo: $1 takes a whole number" >&2
            exit 2
        fi
        printf -v "${1#--}" '%s' "$2"
        shift 2
        ;;
    *)
        echo "demo: unknown argument '$1'; see ./dev demo --help" >&2
        exit 2
        ;;
    esac
done

bold='' dim='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ]; then
    bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'
fi

mkdir -p "$root/build/demo"
run=$(mktemp -d "$root/build/demo/$(date +%Y%m%d_%H%M%S)_XXXX")
device="sim:seed=$seed&changes=$changes&instruments=$instruments&eof=stop"
# The last CPU this process may use: the first is where a machine does its chores.
cpu=$(taskset -pc $$ 2> /dev/null | grep -oE '[0-9]+$' || echo 0)
cat > "$run/vorn.ini" << END
[config]
device = $device
insts = all
shfe2ps = enabled
ine2ps = enabled
cpucore = $cpu
log_level = 7
END

echo "${bold}Vorn demo${plain}: a session of both exchanges through the software card"
echo "${dim}  device  $device"
echo "  folder  $run${plain}"
echo

watch_rows() {
    local csv size
    while sleep 0.5; do
        csv=$(find "$run" -name 'exanic_md_*.csv' -print -quit)
        [ -n "$csv" ] || continue
        size=$(stat -c %s "$csv")
        [ "$size" -gt 391 ] && printf '\r%s  recording: %d MB of rows %s' "$dim" $((size / 1000000)) "$plain" >&2
    done
}
watcher=
if [ -t 2 ]; then
    watch_rows &
    watcher=$!
fi
stop_watcher() {
    if [ -n "$watcher" ]; then
        kill "$watcher" 2> /dev/null || true
        wait "$watcher" 2> /dev/null || true
        printf '\r\e[K' >&2
        watcher=
    fi
}
trap stop_watcher EXIT

started=$(date +%s.%N)
(cd "$run" && exec "$bin/ApiDemoCallback" vorn.ini) || {
    echo "demo: the recorder failed" >&2
    exit 1
}
ended=$(date +%s.%N)
stop_watcher

csv=$(find "$run" -name 'exanic_md_*.csv' -print -quit)
echo
"$bin/session_report" --device "$device" --csv "$csv" \
    --seconds "$(awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.3f", b - a }')"
echo
echo "See such a session live, on a page: ./dev show"
