#!/usr/bin/env bash
# The exchange, its client and the feed as three programs on a real network stack: two network
# namespaces joined by a veth pair. Run it as `./dev lab`, which builds what it needs; docs/lab.md
# explains it.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$root/build/bin
seconds=12
rate=2000
instruments=200
seed=7
buffer=64M
repeat=1
keep=false
recorder=false

usage() {
    cat << 'END'
usage: ./dev lab [--seconds N] [--rate N] [--instruments N] [--seed N] [--buffer SIZE]
                 [--recorder] [--repeat N] [--keep]

  --seconds N      length of the session (default 12)
  --rate N         changes a second, on average (default 2000)
  --instruments N  instruments of both exchanges together (default 200)
  --seed N         seed of the session (default 7)
  --buffer SIZE    what the kernel keeps for the feed's card (default 64M)
  --recorder       the feed is the recorder ApiDemoCallback, and its last rows are compared; without
                   it the feed is vorn verify, and every update is
  --repeat N       run N times, stop at the first failure
  --keep           keep the folder of the run (configuration, session, truth, output)

Status 0: every update equals the exchange's truth and every instrument was updated to the end of
the session. Frames lost on the way are not a failure when the feed recovers from them; they are
reported.
END
}

fail() { # STATUS TEXT
    echo "lab: $2" >&2
    exit "$1"
}

arguments=("$@")
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help)
        usage
        exit 0
        ;;
    --seconds | --rate | --instruments | --seed | --repeat)
        [[ ${2:-} =~ ^[0-9]+$ ]] || fail 2 "$1 takes a whole number"
        printf -v "${1#--}" '%s' "$2"
        shift 2
        ;;
    --buffer)
        buffer=${2:?--buffer takes a size}
        shift 2
        ;;
    --bin) # of another build
        bin=$(cd "${2:?--bin takes a folder}" && pwd)
        shift 2
        ;;
    --keep | --recorder)
        printf -v "${1#--}" true
        shift
        ;;
    *) fail 2 "unknown argument '$1'; see ./dev lab --help" ;;
    esac
done

if [ "$(id -u)" -ne 0 ]; then
    command -v sudo > /dev/null ||
        fail 2 "making network namespaces needs root, and there is no sudo; run it as root"
    exec sudo -- "$0" "${arguments[@]}"
fi
for tool in ip ethtool; do
    command -v $tool > /dev/null || fail 2 "$tool is missing; ./dev lab installs it"
done
for program in vorn ApiDemoCallback session_report; do
    [ -x "$bin/$program" ] || fail 2 "$bin/$program is missing; ./dev lab builds it"
done

if [ "$repeat" -ne 1 ]; then
    one_run=
    # The run itself tidies up.
    trap '[ -z "$one_run" ] || kill -TERM "$one_run"; wait; exit 143' INT TERM HUP
    for ((run_no = 1; run_no <= repeat; run_no++)); do
        echo "run $run_no of $repeat"
        "$0" "${arguments[@]}" --repeat 1 &
        one_run=$!
        wait "$one_run" || exit $?
    done
    echo "$repeat runs passed"
    exit 0
fi

# Everything of one run carries its process number: namespaces, links, folder.
exchange_ns=vorn-exchange-$$
feed_ns=vorn-feed-$$
exchange_if=vornx$$
feed_if=vornf$$
exchange_ip=172.20.11.11
feed_ip=172.20.21.2
lab=$(dirname "$bin")/lab
run=$lab/run-$$

kill_all_in() { # NAMESPACE
    local pids tries
    pids=$(ip netns pids "$1" 2> /dev/null) || return 0
    [ -n "$pids" ] || return 0
    # shellcheck disable=SC2086
    kill -TERM $pids 2> /dev/null || true
    for ((tries = 0; tries < 50; tries++)); do
        pids=$(ip netns pids "$1" 2> /dev/null) || return 0
        [ -n "$pids" ] || return 0
        sleep 0.1
    done
    # shellcheck disable=SC2086
    kill -KILL $pids 2> /dev/null || true
}

has_namespace() {
    [ -e "/run/netns/$1" ]
}

remove_namespaces() { # NAMESPACE...
    local ns
    for ns in "$@"; do
        if has_namespace "$ns"; then
            kill_all_in "$ns"
            ip netns del "$ns" || true # its links go with it
        fi
    done
}

tidy_up() {
    local status=$?
    trap '' INT TERM HUP
    trap - EXIT
    # Its own children first: one that is just starting is not in its namespace yet.
    # shellcheck disable=SC2046
    kill -TERM $(jobs -p) 2> /dev/null || true
    remove_namespaces "$exchange_ns" "$feed_ns"
    wait 2> /dev/null || true
    if $keep && [ -d "$run" ]; then
        local kept
        kept=$lab/kept-$(date +%Y%m%d_%H%M%S)-$$
        mv "$run" "$kept"
        echo "kept in $kept"
    fi
    rm -rf "$run"
    rmdir "$lab" 2> /dev/null || true
    local ns
    for ns in "$exchange_ns" "$feed_ns"; do
        if has_namespace "$ns"; then
            echo "lab: could not remove the namespace $ns" >&2
            status=1
        fi
    done
    exit "$status"
}

# What a lab that was killed outright (kill -9, power) could not remove.
sweep_up() {
    local path pid
    for path in /run/netns/vorn-exchange-* /run/netns/vorn-feed-* "$lab"/run-*; do
        pid=${path##*-}
        if [ -e "$path" ] && [[ $pid =~ ^[0-9]+$ ]] && [ ! -d "/proc/$pid" ]; then
            case $path in
            /run/netns/*) remove_namespaces "${path#/run/netns/}" ;;
            *) rm -rf "$path" ;;
            esac
        fi
    done
}

in_exchange() { ip netns exec "$exchange_ns" "$@"; }
in_feed() { ip netns exec "$feed_ns" "$@"; }

make_end() { # NAMESPACE LINK ADDRESS
    # Offloads would join frames beyond the MTU and leave their checksums open.
    ip netns exec "$1" ethtool -K "$2" rx off tx off tso off gso off gro off sg off > /dev/null
    ip netns exec "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 2> /dev/null || true
    ip -n "$1" address add "$3/16" dev "$2"
    ip -n "$1" link set "$2" mtu 1500 up
    ip -n "$1" link set lo up
    ip -n "$1" route add 224.0.0.0/4 dev "$2"
}

make_network() {
    if ! ip netns add "$exchange_ns" 2> "$run/netns.err"; then
        fail 2 "this machine lets nobody make a network namespace: $(tail -n 1 "$run/netns.err")"
    fi
    ip netns add "$feed_ns"
    ip link add "$exchange_if" netns "$exchange_ns" type veth peer name "$feed_if" netns "$feed_ns"
    make_end "$exchange_ns" "$exchange_if" $exchange_ip
    make_end "$feed_ns" "$feed_if" $feed_ip
}

write_config() {
    # The last CPU this process may use: the first is where a machine does its chores.
    local cpu
    cpu=$(taskset -pc $$ 2> /dev/null | grep -oE '[0-9]+$' || echo 0)
    cat > "$run/lab.ini" << END
[config]
device = if:$feed_if?buffer=$buffer&idle=5&eof=stop
insts = all
shfe2ps = enabled
ine2ps = enabled
cpucore = $cpu
recovery = enabled
log_level = 7
END
}

show_output() {
    local file
    for file in exchange client feed; do
        if [ -s "$run/$file.err" ]; then
            sed "s/^/  $file: /" "$run/$file.err" | tail -n 12 >&2
        fi
    done
}

session=(--seed "$seed" --seconds "$seconds" --rate "$rate" --instruments "$instruments")

start_exchange() {
    in_exchange "$bin/vorn" sim --live --interface "$exchange_if" --wait 120 -o "$run/live.pcap" \
        "${session[@]}" --json > "$run/exchange.json" 2> "$run/exchange.err" &
    exchange=$!
}

start_client() {
    in_feed "$bin/vorn" client $exchange_ip --wait 120 --json > "$run/client.json" \
        2> "$run/client.err" &
    client=$!
}

start_feed() {
    if $recorder; then
        (cd "$run" && exec ip netns exec "$feed_ns" "$bin/ApiDemoCallback" lab.ini) \
            > "$run/feed.out" 2> "$run/feed.err" &
    else
        in_feed "$bin/vorn" verify --config "$run/lab.ini" --truth "$run/session.truth" \
            --complete --allow-restarts --json > "$run/feed.json" 2> "$run/feed.err" &
    fi
    feed=$!
}

# The feed's card has joined all four groups: it listens.
await_feed() {
    local tries
    for ((tries = 0; tries < 1200; tries++)); do
        if [ "$(ip -n "$feed_ns" maddr show dev "$feed_if" | grep -c 'inet *239\.')" -ge 4 ]; then
            return 0
        fi
        kill -0 "$feed" 2> /dev/null || return 0 # await_programs says how it ended
        sleep 0.1
    done
    fail 4 "the feed does not listen after two minutes"
}

await_programs() {
    local ended status left=3 name
    sleep $((seconds + 300)) & # the one that is none of the three below
    while [ $left -gt 0 ]; do
        status=0
        wait -n -p ended || status=$?
        case $ended in
        "$exchange") name=exchange ;;
        "$client") name=client ;;
        "$feed") name=feed ;;
        *)
            show_output
            fail 4 "the session has not come to its end $((seconds + 300)) seconds after its start"
            ;;
        esac
        left=$((left - 1))
        if [ $status -ne 0 ]; then
            show_output
            [ $name != feed ] || [ ! -s "$run/feed.json" ] || head -n 11 "$run/feed.json" >&2
            fail $((status > 4 ? 1 : status)) "the $name ended with status $status"
        fi
    done
}

number() { # FILE KEY
    sed -n "s/.*\"$2\":\(-\{0,1\}[0-9]*\).*/\1/p" "$1" | tail -n 1
}

report_verified() {
    local file=$run/feed.json
    echo "  updates      $(number "$file" updates) of $(number "$file" instruments_updated)" \
        "instruments, all equal to the truth"
    echo "  snapshot     $(number "$file" raw_frames) frames, $(number "$file" cached) changes" \
        "cached, $(number "$file" replayed) replayed"
    echo "  losses       $(number "$file" overflows) overflows, $(number "$file" gaps) gaps," \
        "$(number "$file" restarts) restarts"
}

report_recorded() {
    local csv
    csv=$(find "$run" -name 'exanic_md_*.csv' -print -quit)
    [ -n "$csv" ] || fail 1 "the recorder wrote no file"
    "$bin/session_report" --csv "$csv" --seconds "$seconds" \
        --device "sim:seed=$seed&seconds=$seconds&rate=$rate&instruments=$instruments" ||
        fail 3 "the recording differs from the truth"
}

trap tidy_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
sweep_up
mkdir -p "$run" || mkdir -p "$run" # another lab may have removed the folder above in between
export TMPDIR=$run

echo "Vorn lab: $seconds s of $instruments instruments at $rate changes/s from one network namespace" \
    "to another"
"$bin/vorn" sim -q -o "$run/session.pcap" "${session[@]}"
make_network
write_config
start_exchange
start_feed
await_feed
start_client
await_programs

cmp -s "$run/session.truth" "$run/live.truth" ||
    fail 3 "the truth of the live session is not that of its seed"
echo "  exchange     $(number "$run/exchange.json" datagrams) datagrams," \
    "$(number "$run/exchange.json" segments) segments, at most" \
    "$(number "$run/exchange.json" late_ms_at_most) ms late; the client read" \
    "$(number "$run/client.json" bytes) bytes"
if $recorder; then
    report_recorded
else
    report_verified
fi
