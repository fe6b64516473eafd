#!/usr/bin/env bash
# A simulated session, the feed over it, its bus and the page, together. Run it as `./dev show`,
# which builds what it needs; Ctrl+C ends all of it.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$root/build/bin
listen=127.0.0.1:8710
rate=3000
instruments=400
seed=7

usage() {
    cat << 'END'
usage: ./dev show [--listen ADDRESS:PORT] [--rate N] [--instruments N] [--seed N]

  --listen ADDRESS:PORT  where the page is served (default 127.0.0.1:8710)
  --rate N               changes a second, on average (default 3000)
  --instruments N        instruments of both exchanges together (default 400)
  --seed N               seed of the session (default 7)
END
}

while [ $# -gt 0 ]; do
    case $1 in
    -h | --help)
        usage
        exit 0
        ;;
    --rate | --instruments | --seed)
        if [[ ! ${2:-} =~ ^[0-9]+$ ]]; then
            echo "show: $1 takes a whole number" >&2
            exit 2
        fi
        printf -v "${1#--}" '%s' "$2"
        shift 2
        ;;
    --listen)
        listen=${2:-}
        shift 2 || { echo "show: --listen takes an address and a port" >&2; exit 2; }
        ;;
    *)
        echo "show: unknown argument '$1'; see ./dev show --help" >&2
        exit 2
        ;;
    esac
done

# Ten hours, with a change lost on both lines now and then: the first after half a minute, later
# ones every five minutes; and once the card's ring overtakes the feed.
faults=gap@30+gap@90+overflow@150:40
for ((second = 300; second < 36000; second += 300)); do
    faults+="+gap@$second"
done

mkdir -p "$root/build/show"
run=$(mktemp -d "$root/build/show/$(date +%Y%m%d_%H%M%S)_XXXX")
bus=show-$$
# The last CPU this process may use: the first is where a machine does its chores.
cpu=$(taskset -pc $$ 2> /dev/null | grep -oE '[0-9]+$' || echo 0)
cat > "$run/vorn.ini" << END
[config]
device = sim:seed=$seed&instruments=$instruments&changes=0&seconds=36000&rate=$rate&speed=1&first_round_ms=500&round_interval_ms=4000&round_ms=200&fault=$faults
insts = all
shfe2ps = enabled
ine2ps = enabled
recovery = enabled
cpucore = $cpu
log_level = 7
END

feed='' page=''
# shellcheck disable=SC2317 # called by the trap
end() {
    trap '' INT TERM
    [ -z "$page" ] || kill -TERM "$page" 2> /dev/null || true
    [ -z "$feed" ] || kill -TERM "$feed" 2> /dev/null || true
    wait || true
    rm -f "/dev/shm/vorn.$bus.bus" "/dev/shm/vorn.$bus.bus.lock"
}
trap end EXIT
trap 'exit 0' INT TERM

(cd "$run" && exec "$bin/vorn" publish --config vorn.ini --bus "$bus" -q > feed.log 2>&1) &
feed=$!
"$bin/vorn" serve --bus "$bus" --listen "$listen" -q &
page=$!
sleep 0.5
if ! kill -0 "$page" 2> /dev/null; then
    exit 1 # it has said why
fi
echo "A simulated session of both exchanges, live:  http://$listen/"
echo "Ctrl+C ends it. Log of the feed: $run/feed.log"
wait -n "$feed" "$page" || true
if ! kill -0 "$feed" 2> /dev/null; then
    echo "show: the feed has ended; see $run/feed.log" >&2
fi
exit 1
