#!/usr/bin/env python3
"""The feed beside a real TCP stack whose cable is bad.

Exchange (vorn sim --live) and client (vorn client) are two programs in two network namespaces. In
between, in a third, tests/evidence/relay drops, delays, repeats and flips bits of the frames that
carry the snapshots, from a seed; TCP sends again what got lost. The feed (vorn verify), with
recovery, listens beside the client. A cell is a size of message, a loss and a share of frames that
come out of order. In each the feed has to load a snapshot and to end equal to the exchange's truth.

    bad_cable.py [CELLS] [--seed N] --bin FOLDER

48 cells are all there are; the first six have some of everything, more than 48 begin again with
other seeds.

Exit status: 0 fine, 1 a cell that failed, 2 usage, 77 this machine or user cannot make namespaces.
"""

import argparse
import contextlib
import itertools
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

MESSAGES = (1, 6, 24, 0)  # instruments in a message; 0: a mix
LOSSES = (0, 50, 150, 300)  # in 1/10000 of the segments
REORDERS = (0, 100, 400)
# A few of each, none of them so bad that a second chance is needed.
FIRST = ((1, 50, 100), (6, 150, 0), (24, 50, 0), (0, 50, 100), (6, 0, 400), (24, 150, 100))
DUPLICATES = 300
FLIPS = 200
# Forty rounds of SHFE, some 2400 segments. A round that begins with a lost segment, or whose
# segments TCP cuts anew when it sends them again, cannot be taken, nor what follows, until 500
# segments are held: the cable is bad for so long that this may happen twice, and then good, so that
# it cannot happen until the end.
UNTIL = 1000
SESSION = ("--seconds", "4", "--rate", "800", "--instruments", "100", "--set", "feeds=shfe", "--set",
           "first_round_ms=200", "--set", "round_interval_ms=100", "--set", "round_ms=50")
EXCHANGE, CLIENT = "172.20.11.11", "172.20.21.2"
PATIENCE_S = 300  # not a bound on speed: reached only by a program that hangs


class Failure(Exception):
    pass


def run(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise Failure(f"{' '.join(map(str, command))}: {done.stderr.strip()}")
    return done.stdout


class Network:
    """Three namespaces in a row, joined by two veth pairs; the middle one is the cable."""

    def __init__(self):
        name = f"vorn-cable-{os.getpid()}"
        self.exchange, self.cable, self.feed = (f"{name}-{end}" for end in "xcf")
        self._made = []

    def __enter__(self):
        try:
            for namespace in (self.exchange, self.cable, self.feed):
                run("ip", "netns", "add", namespace)
                self._made.append(namespace)
                run("ip", "-n", namespace, "link", "set", "lo", "up")
                with contextlib.suppress(Failure):  # not every kernel has it
                    run("ip", "netns", "exec", namespace, "sysctl", "-qw",
                        "net.ipv6.conf.all.disable_ipv6=1")
            self._join(self.exchange, "exchange", EXCHANGE, "cable0")
            self._join(self.feed, "feed", CLIENT, "cable1")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for namespace in self._made:
            with contextlib.suppress(Failure):
                run("ip", "netns", "del", namespace)

    def _join(self, namespace, link, address, far):
        run("ip", "link", "add", link, "netns", namespace, "type", "veth", "peer", "name", far,
            "netns", self.cable)
        for where, end in ((namespace, link), (self.cable, far)):
            # Offloads would join frames beyond the MTU and leave their checksums open.
            run("ip", "netns", "exec", where, "ethtool", "-K", end, "rx", "off", "tx", "off", "tso",
                "off", "gso", "off", "gro", "off", "sg", "off")
        run("ip", "-n", namespace, "address", "add", f"{address}/16", "dev", link)
        run("ip", "-n", namespace, "link", "set", link, "up")
        run("ip", "-n", self.cable, "link", "set", far, "up")
        run("ip", "-n", namespace, "route", "add", "224.0.0.0/4", "dev", link)

    def start(self, namespace, directory, name, *command):
        return subprocess.Popen(
            ["ip", "netns", "exec", namespace, *command], stdin=subprocess.DEVNULL,
            stdout=(directory / f"{name}.json").open("wb"),
            stderr=(directory / f"{name}.err").open("wb"),
            env={**os.environ, "TMPDIR": str(directory)})

    def groups_joined(self):
        shown = run("ip", "-n", self.feed, "maddr", "show", "dev", "feed")
        return sum(" 239." in line for line in shown.splitlines())


def await_that(condition, what, programs):
    limit = time.monotonic() + PATIENCE_S
    while not condition():
        for name, program in programs.items():
            if program.poll() is not None:
                raise Failure(f"{name} ended with status {program.returncode}")
        if time.monotonic() > limit:
            raise Failure(f"{what} after {PATIENCE_S} s")
        time.sleep(0.02)


def last_object(path):
    lines = path.read_text().splitlines()
    return json.loads(lines[-1]) if lines else {}


def play(network, directory, programs, arguments, cell):
    messages, loss, reorder = cell
    vorn = arguments.bin / "vorn"
    session = (*SESSION, "--seed", str(arguments.seed), "--set", f"message_instruments={messages}")
    run(vorn, "sim", "-q", "-o", directory / "session.pcap", *session)
    (directory / "feed.ini").write_text(
        "[config]\ndevice = if:feed?idle=3&eof=stop\ninsts = all\nshfe2ps = enabled\n"
        f"cpucore = {max(os.sched_getaffinity(0))}\nrecovery = enabled\n"
        "log_level = 7\n")
    relay = programs["relay"] = network.start(
        network.cable, directory, "relay", arguments.bin / "relay", "cable0", "cable1", "--seed",
        str(arguments.seed), "--drop", str(loss), "--delay", str(reorder), "--duplicate",
        str(DUPLICATES), "--flip", str(FLIPS), "--until", str(UNTIL))
    await_that(lambda: b"listens" in (directory / "relay.json").read_bytes(), "no relay", programs)
    programs["exchange"] = network.start(
        network.exchange, directory, "exchange", vorn, "sim", "--live", "--interface", "exchange",
        "--wait", "120", "--json", *session)
    feed = programs["feed"] = network.start(
        network.feed, directory, "feed", vorn, "verify", "--config", directory / "feed.ini",
        "--truth", directory / "session.truth", "--complete", "--allow-restarts", "--json")
    await_that(lambda: network.groups_joined() >= 2, "the feed does not listen", programs)
    programs["client"] = network.start(network.feed, directory, "client", vorn, "client", EXCHANGE,
                                       "--from", "50001", "--wait", "120", "--json")
    for name in ("exchange", "client", "feed"):
        status = programs[name].wait(timeout=PATIENCE_S)
        if status != 0:
            raise Failure(f"{name} ended with status {status}")
    relay.send_signal(signal.SIGTERM)
    relay.wait(timeout=PATIENCE_S)
    spoilt = last_object(directory / "relay.json")
    for what, wanted in (("dropped", loss), ("delayed", reorder), ("flipped", FLIPS)):
        if wanted != 0 and spoilt.get(what, 0) == 0:
            raise Failure(f"no frame was {what}, of {spoilt.get('snapshot', 0)}")
    return spoilt, last_object(directory / "feed.json")


def play_cell(arguments, cell):
    """What the relay and the feed counted; raises Failure."""
    directory = pathlib.Path(tempfile.mkdtemp(prefix="vorn-cable-"))
    programs = {}
    try:
        with Network() as network:
            try:
                return play(network, directory, programs, arguments, cell)
            finally:
                for program in programs.values():
                    if program.poll() is None:
                        program.kill()
                        program.wait()
    except (Failure, subprocess.TimeoutExpired) as failure:
        said = []
        for name in programs:
            for kind in ("err", "json"):
                text = (directory / f"{name}.{kind}").read_text(errors="replace").strip()
                said += [f"  {name}: {line}" for line in text.splitlines()[-8:]]
        raise Failure("\n".join([str(failure), *said])) from failure
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def cannot_be_played():
    """Why; empty when it can."""
    if os.geteuid() != 0:
        return "making network namespaces needs root"
    for tool in ("ip", "ethtool"):
        if shutil.which(tool) is None:
            return f"{tool} is not installed (./dev lab installs it)"
    try:
        with Network():
            return ""
    except Failure as failure:
        return f"no network can be made here: {failure}"


def cells_of(count):
    every = [*FIRST, *(cell for cell in itertools.product(MESSAGES, LOSSES, REORDERS)
                       if cell not in FIRST)]
    return [every[i % len(every)] for i in range(count)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("cells", nargs="?", type=int, default=48)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="folder of the programs")
    arguments = parser.parse_args()
    if arguments.cells < 1 or arguments.seed < 0:
        parser.error("there is at least one cell, and no seed below 0")
    arguments.bin = arguments.bin.resolve()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))  # so that the network is taken down
    reason = cannot_be_played()
    if reason:
        print(f"SKIPPED: {reason}")
        return 77
    failed = 0
    for number, cell in enumerate(cells_of(arguments.cells)):
        name = "messages of {} instruments, loss {}, out of order {} in 10000".format(
            cell[0] or "mixed", *cell[1:])
        try:
            spoilt, feed = play_cell(arguments, cell)
            print(f"{name}: {spoilt['snapshot']} segments, {spoilt['dropped']} dropped, "
                  f"{spoilt['delayed']} delayed, {spoilt['duplicated']} repeated, "
                  f"{spoilt['flipped']} flipped; {feed['updates']} updates of "
                  f"{feed['instruments_updated']} instruments equal the truth", flush=True)
        except Failure as failure:
            failed += 1
            print(f"FAILED cell {number} of seed {arguments.seed}, {name}: {failure}", flush=True)
        arguments.seed += 1
    print(f"{arguments.cells - failed} of {arguments.cells} cells")
    return 0 if failed == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
