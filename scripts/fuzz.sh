#!/usr/bin/env bash
# Fuzzing by ./dev fuzz: builds a target with libFuzzer and sanitizers, runs it from its committed
# corpus, and says how to see what it found again.
#
#   fuzz.sh                     lists the targets
#   fuzz.sh TARGET SECONDS      fuzzes; what is new goes to build-fuzz/corpus/TARGET
#   fuzz.sh --campaign [N] [TARGET...]   N inputs (100000000) for each decoder target, or those named
#   fuzz.sh TARGET reduce       makes the committed corpus anew: seeds, and what reaches more code
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/packages.sh disable=SC2154
. "$root/scripts/packages.sh"
folder=$root/tests/fuzz

# Target and the size of its inputs: longer ones cost more than they find.
declare -A sizes=([frame]=600 [session]=1500 [mdqp]=600 [decode]=256 [cache]=512 [config]=2048
    [log]=1024 [capture]=16384)

list() {
    local target
    echo "targets of ./dev fuzz TARGET SECONDS:"
    for target in frame session mdqp decode cache config log capture; do
        printf '  %-8s %s\n' "$target" \
            "$(sed -n '1s|^// ||p' "$folder/$target.cpp")"
    done
}

build() { # TARGET...
    vorn_install_packages "${vorn_packages[@]}" "${vorn_clang_packages[@]}"
    [ -f "$root/build-fuzz/build.ninja" ] || (cd "$root" && cmake --preset fuzz)
    (cd "$root" && cmake --build --preset fuzz -j "$(nproc)" --target "$@")
}

fuzz() { # TARGET SECONDS
    local target=$1 seconds=$2 before after
    build "fuzz_$target" >&2
    local findings=$root/build-fuzz/findings grown=$root/build-fuzz/corpus/$target
    mkdir -p "$findings" "$grown"
    local arguments=(-max_len="${sizes[$target]}" -max_total_time="$seconds" -print_final_stats=1
        -report_slow_units=600 -artifact_prefix="$findings/$target-" "$grown" "$folder/corpus/$target")
    [ -f "$folder/dictionaries/$target.dict" ] &&
        arguments=(-dict="$folder/dictionaries/$target.dict" "${arguments[@]}")
    before=$(find "$findings" -name "$target-*" | sort)
    local status=0
    export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-/usr/bin/llvm-symbolizer-14}
    "$root/build-fuzz/bin/fuzz_$target" "${arguments[@]}" >&2 || status=$?
    after=$(find "$findings" -name "$target-*" | sort)
    local found
    found=$(comm -13 <(echo "$before") <(echo "$after"))
    if [ -n "$found" ]; then
        echo "fuzz: found; replay with: $root/build-fuzz/bin/fuzz_$target ${found//$'\n'/ }"
        return 1
    fi
    [ "$status" -eq 0 ] || return "$status"
    echo "fuzz: $target: $seconds s and no finding"
}

# The committed corpus is what the seeds reach, and of the rest what reaches code that they do not.
reduce() { # TARGET
    local target=$1 work
    local program=$root/build-fuzz/bin/fuzz_$target kept=$folder/corpus/$target
    build "fuzz_$target" make_fuzz_seeds >&2
    work=$(mktemp -d)
    mkdir -p "$work/corpus" "$root/build-fuzz/corpus/$target" "$kept"
    "$root/build-fuzz/bin/make_fuzz_seeds" "$work/seeds"
    # Without a bound on sizes: some of the seeds are long because they have to be.
    "$program" -merge=1 -max_len=65536 "$work/corpus" "$work/seeds/$target" >&2
    "$program" -merge=1 -max_len=65536 -use_counters=0 "$work/corpus" "$kept" \
        "$root/build-fuzz/corpus/$target" >&2
    # A finding stays under the name that it was given.
    find "$kept" -type f -name '*-*' -exec cp -t "$work/corpus" {} +
    find "$kept" -type f -delete
    cp "$work/corpus"/* "$kept"
    rm -rf "$work"
    echo "fuzz: $target: $(find "$kept" -type f | wc -l) inputs in the corpus"
}

if [ $# -eq 0 ]; then
    list
elif [ "$1" = --campaign ]; then
    shift
    vorn_install_packages "${vorn_packages[@]}" "${vorn_clang_packages[@]}"
    cd "$root"
    [ -f build-campaign/build.ninja ] || cmake --preset campaign >&2
    cmake --build --preset campaign -j "$(nproc)" \
        --target fuzz_decode fuzz_mdqp fuzz_frame fuzz_session >&2
    export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-/usr/bin/llvm-symbolizer-14}
    exec python3 -B "$root/scripts/fuzz_campaign.py" "$root/build-campaign" "$@"
elif [ $# -ne 2 ] || [ -z "${sizes[$1]:-}" ]; then
    echo "fuzz: usage: ./dev fuzz TARGET SECONDS; ./dev fuzz alone lists the targets" >&2
    exit 2
elif [ "$2" = reduce ]; then
    reduce "$1"
elif [[ $2 =~ ^[1-9][0-9]*$ ]]; then
    fuzz "$1" "$2"
else
    echo "fuzz: '$2' is no number of seconds" >&2
    exit 2
fi
