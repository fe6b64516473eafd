#!/usr/bin/env bash
# installed_checks.sh FOLDER [HIDDEN...]: holds the packages, installed on the machine where this runs, to
# what they promise. FOLDER holds foreign.sh and takes what is built. HIDDEN are folders that must not
# be there: those that the packages were made in.
set -euo pipefail

here=$1
shift
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER PYTHONPATH
export HOME=$here LC_ALL=C.UTF-8
cd "$here"

fail() {
    echo "FAILED: $1" >&2
    exit 1
}

for folder in "$@"; do
    [ ! -e "$folder" ] || fail "$folder can be seen"
done

for file in /usr/bin/vorn /usr/bin/ApiDemoCallback /usr/lib/*/libvorn_md.so.0; do
    [[ $(ldd "$file") != *"not found"* ]] || fail "$file lacks a library: $(ldd "$file")"
done

vorn check /usr/share/vorn/vorn.ini || fail "vorn check finds fault with the sample configuration"
vorn demo --changes 50000 -q > demo.log 2>&1 || fail "vorn demo: $(cat demo.log)"
echo "vorn demo: fine"

# The examples that come with the documentation, each at the version of Python that Debian has.
FOREIGN_PYTHON=/usr/bin/python3 "$here/foreign.sh" /usr/share/doc/vorn/examples/ "$here/foreign"

# The page, where it was built.
vorn serve --bus nothing --listen 127.0.0.1:0 > serve.log 2>&1 &
serve=$!
address=
for _ in $(seq 600); do
    address=$(grep -oE 'http://127\.0\.0\.1:[0-9]+/' serve.log) && break
    kill -0 $serve 2> /dev/null || break
    sleep 0.1
done
[ -n "$address" ] || fail "vorn serve: $(cat serve.log)"
page=$(/usr/bin/python3 - "$address" << 'END'
import sys
import urllib.error
import urllib.request

try:
    with urllib.request.urlopen(sys.argv[1]) as answer:
        print("<title>" in answer.read().decode())
except urllib.error.HTTPError as error:
    print(error.code)
END
)
kill -INT $serve
wait $serve || fail "vorn serve does not end in order"
if [ -f /usr/share/vorn/web/index.html ]; then
    [ "$page" = True ] || fail "vorn serve has no page: $page"
    echo "vorn serve: has its page"
else
    [ "$page" = 503 ] || fail "vorn serve without a page answers $page"
    echo "vorn serve: answers, without a page"
fi

# Completion as bash-completion would load it.
# shellcheck disable=SC1091
source /usr/share/bash-completion/completions/vorn
COMP_WORDS=(vorn repl) COMP_CWORD=1
_vorn
[ "${COMPREPLY[*]}" = replay ] || fail "completion of 'repl' is '${COMPREPLY[*]}'"

if command -v man > /dev/null; then
    for page in "1 vorn" "1 vorn-serve" "1 ApiDemoCallback" "3 vorn_recv" "3 free_shm" "5 vorn.ini" \
        "5 vorn-bus"; do
        # shellcheck disable=SC2086
        shown=$(MANWIDTH=80 man $page 2>&1) || fail "man $page: $shown"
        [ ${#shown} -gt 300 ] || fail "man $page is short: $shown"
    done
    [[ $(MANWIDTH=80 man vorn) == *"EXIT STATUS"* ]] || fail "man vorn"
    echo "man: fine"
fi
if command -v systemd-analyze > /dev/null; then
    said=$(systemd-analyze verify vorn@live.service vorn-serve@live.service 2>&1) ||
        fail "systemd-analyze: $said"
    [ -z "$said" ] || fail "systemd-analyze: $said"
    echo "systemd-analyze verify: fine"
fi
if command -v tshark > /dev/null; then
    vorn sim -q -o s.pcap --changes 200 --instruments 10
    [[ $(tshark -r s.pcap -Y vorn.change_no -T fields -e vorn.inst_id -c 400 2> /dev/null) == *[a-z]* ]] ||
        fail "tshark does not know the changes"
    echo "tshark: has the dissector"
fi
echo "installed, and fine"
