#!/usr/bin/env bash
# One case of the lab, by name: lab_test.sh LAB_SCRIPT BIN_FOLDER CASE. Status 77 when this machine
# or this user cannot make network namespaces: the test is then skipped.
set -euo pipefail

lab=$1
bin=$2
case=$3

skip() {
    echo "SKIPPED: $1"
    exit 77
}

fail() {
    echo "FAILED: $1"
    [ ! -f "$log" ] || cat "$log"
    exit 1
}

[ "$(id -u)" -eq 0 ] || skip "making network namespaces needs root"
for tool in ip ethtool; do
    command -v $tool > /dev/null || skip "$tool is not installed (./dev lab installs it)"
done
probe=vorn-probe-$$
ip netns add $probe 2> /dev/null || skip "no network namespace can be made here"
ip netns del $probe

log=$(mktemp)
lab_pid=
ended=false
trap 'end_lab' EXIT
end_lab() {
    if ! $ended && [ -n "$lab_pid" ] && kill -TERM "$lab_pid" 2> /dev/null; then
        wait "$lab_pid" || true
    fi
    rm -f "$log"
}

# A short session: what is tested is that it is right, not that it is fast.
start_lab() { # ARGUMENTS
    "$lab" --bin "$bin" --rate 1000 --instruments 60 "$@" > "$log" 2>&1 &
    lab_pid=$!
}

await_status() { # WANTED
    local status=0
    wait "$lab_pid" || status=$?
    ended=true
    [ "$status" = "$1" ] || fail "status $status instead of $1"
}

says() {
    grep -q -- "$1" "$log" || fail "the lab does not say: $1"
}

# The process whose command line matches, in the lab's own namespace, once it is there.
process_in() { # NAMESPACE WORD
    local tries pid
    for ((tries = 0; tries < 1200; tries++)); do
        for pid in $(ip netns pids "$1" 2> /dev/null || true); do
            if { tr '\0' ' ' < "/proc/$pid/cmdline"; } 2> /dev/null | grep -q "^[^ ]*/vorn $2 "; then
                echo "$pid"
                return 0
            fi
        done
        kill -0 "$lab_pid" 2> /dev/null || break
        sleep 0.1
    done
    echo "FAILED: there is no $2 in $1" >&2
    return 1
}

await_size() { # FILE BYTES
    while [ "$(stat -c %s "$1" 2> /dev/null || echo 0)" -lt "$2" ]; do
        kill -0 "$lab_pid" 2> /dev/null || fail "the lab has ended before $2 bytes were sent"
        sleep 0.05
    done
}

leaves_nothing() {
    local found
    found=$(find /run/netns -name "vorn-*-$lab_pid" 2> /dev/null || true)
    [ -z "$found" ] || fail "namespaces are left: $found"
    [ ! -e "$(dirname "$bin")/lab/run-$lab_pid" ] || fail "its folder is left"
    # Its links are named after it, and so is what its programs were told to use.
    ! ip link show "vornx$lab_pid" > /dev/null 2>&1 || fail "a link is left"
    ! pgrep -f "vorn[xf]$lab_pid|lab/run-$lab_pid" > /dev/null || fail "a process is left"
}

case $case in
a_session_equals_its_truth)
    start_lab --seconds 3
    await_status 0
    says "updates .* of 60 instruments, all equal to the truth"
    ;;
the_recorder_records_a_session)
    start_lab --seconds 3 --recorder
    await_status 0
    says "the last row of every instrument equals the exchange's truth"
    ;;
a_feed_that_loses_frames_recovers)
    # Stopped while the session goes on, until far more has passed than its card's buffer holds. What
    # has been sent is read off the exchange's capture: no time is assumed.
    start_lab --seconds 22 --rate 2000 --buffer 16M
    feed=$(process_in "vorn-feed-$lab_pid" verify)
    sent=$(dirname "$bin")/lab/run-$lab_pid/live.pcap.part
    await_size "$sent" 600000
    kill -STOP "$feed"
    await_size "$sent" 3300000
    kill -CONT "$feed"
    await_status 0
    says "all equal to the truth"
    says "losses  *[1-9][0-9]* overflows"
    ;;
a_killed_feed_fails_and_leaves_nothing)
    start_lab --seconds 600
    feed=$(process_in "vorn-feed-$lab_pid" verify)
    process_in "vorn-feed-$lab_pid" client > /dev/null
    kill -KILL "$feed"
    await_status 1
    says "the feed ended with status 137"
    ;;
a_terminated_lab_leaves_nothing)
    start_lab --seconds 600
    process_in "vorn-feed-$lab_pid" client > /dev/null
    kill -TERM "$lab_pid"
    await_status 143
    ;;
an_interface_that_will_not_do_is_refused)
    work=$(mktemp -d)
    export TMPDIR=$work
    ip netns add $probe
    trap 'end_lab; ip netns del $probe; rm -rf "$work"' EXIT
    ip -n $probe link add vornp0 type veth peer name vornp1
    config="[config]\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\ncpucore = 0\n"
    # shellcheck disable=SC2059
    printf "${config}device = if:vornp0\n" > "$work/if.ini"
    "$bin/vorn" sim -q -o "$work/s.pcap" --changes 100 --instruments 10
    refused() { # TEXT COMMAND...
        local text=$1 status=0
        shift
        ip netns exec $probe "$@" > "$log" 2>&1 || status=$?
        [ $status -ne 0 ] || fail "it was not refused"
        says "$text"
    }
    verify=("$bin/vorn" verify --config "$work/if.ini" --truth "$work/s.truth")
    refused "interface vornp0 is down; ip link set vornp0 up" "$bin/vorn" check "$work/if.ini"
    refused "interface vornp0 is down" "${verify[@]}"
    ip -n $probe link set vornp0 up
    ip -n $probe link set vornp1 up
    ip netns exec $probe "$bin/vorn" check "$work/if.ini" > "$log" 2>&1 || fail "check"
    chmod -R a+rwX "$work"
    refused "capturing on vornp0 needs the privilege CAP_NET_RAW" \
        setpriv --bounding-set -net_raw --inh-caps -net_raw "${verify[@]}"
    # Opened, until its card listens.
    listen() {
        ip netns exec $probe "${verify[@]}" > "$log" 2>&1 &
        lab_pid=$!
        while ! ip -n $probe maddr show dev vornp0 | grep -q 'inet *239\.'; do
            kill -0 $lab_pid 2> /dev/null || fail "the feed does not listen"
            sleep 0.05
        done
        kill -TERM $lab_pid
        wait $lab_pid || true # nothing came, so it has nothing to verify
        lab_pid=
    }
    ip netns exec $probe ethtool -K vornp0 tso on gro on > /dev/null
    listen
    says "softcard: vornp0 has gro, tso.* on.*ethtool -K vornp0 "
    ip netns exec $probe ethtool -K vornp0 rx off tx off sg off tso off gso off gro off > /dev/null
    listen
    ! grep softcard: "$log" || fail "a warning without a reason"
    echo "passed"
    exit 0
    ;;
*) fail "there is no case $case" ;;
esac
leaves_nothing
echo "passed"
