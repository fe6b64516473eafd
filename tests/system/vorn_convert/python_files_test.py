"""The files of `vorn convert` as Python reads them, the example that draws a session, and every command
of docs/research.md. VORN_PROGRAM is vorn, VORN_SOURCE the tree; VORN_DUCKDB is DuckDB's library, where
there is one, VORN_MATPLOTLIB is set where there is matplotlib."""

import csv
import ctypes
import hashlib
import io
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import numpy as np

import vorn
from vorn import _files

PROGRAM = os.environ["VORN_PROGRAM"]
SOURCE = os.environ["VORN_SOURCE"]
DOC = os.path.join(SOURCE, "docs", "research.md")
DUCKDB = os.environ.get("VORN_DUCKDB")
EXAMPLE = os.path.join(SOURCE, "python", "examples", "research.py")

_directory = None


def path(name):
    return os.path.join(_directory.name, name)


def run(*words):
    return subprocess.run([PROGRAM, *words], cwd=_directory.name, check=True, capture_output=True,
                          timeout=600)


def setUpModule():
    global _directory
    _directory = tempfile.TemporaryDirectory()
    run("sim", "-q", "-o", "s.pcap", "--seconds", "10", "--rate", "3000", "--instruments", "40",
        "--fault", "gap@5")
    run("convert", "-q", "s.pcap", "-o", "s.npy")


def tearDownModule():
    _directory.cleanup()


class LoadTest(unittest.TestCase):
    def test_numpy_alone_loads_it(self):
        rows = np.load(path("s.npy"), allow_pickle=False)
        self.assertGreater(len(rows), 20000)
        self.assertEqual(rows.dtype.itemsize, 384)
        self.assertEqual(rows.dtype, _files.row)
        self.assertEqual(rows["bid_px"].shape, (len(rows), 10))
        self.assertTrue((np.diff(rows["sequence"].astype(int)) == 1).all())
        mapped = np.load(path("s.npy"), mmap_mode="r")
        self.assertTrue((mapped == rows).all())

    def test_load_gives_updates_events_and_times(self):
        for rows in (vorn.load(path("s.npy")), vorn.load(path("s.npy"), mmap=True)):
            updates = vorn.updates(rows)
            events = vorn.events(rows)
            self.assertEqual(len(updates) + len(events), len(rows))
            self.assertEqual([vorn.EVENTS[kind] for kind in events["event"]],
                             ["phase", "phase", "round", "round", "phase", "phase", "gap",
                              "restart", "phase", "phase", "round", "round", "phase", "phase",
                              "phase"])
            self.assertEqual(len(vorn.events(rows, "gap")), 1)
            one = vorn.updates(rows, updates["inst_id"][0].decode())
            self.assertEqual(set(one["inst_id"]), {updates["inst_id"][0]})
            self.assertEqual(str(vorn.exchange_time(rows)[0]), "2026-01-15T09:00:00.000000000")
            self.assertEqual(str(vorn.exchange_time(0)), "1970-01-01T08:00:00.000000000")

    def test_load_says_what_is_wrong_in_one_line(self):
        def refusal(name):
            with self.assertRaises(vorn.FileError) as caught:
                vorn.load(path(name))
            self.assertNotIn("\n", str(caught.exception))
            return str(caught.exception)

        self.assertIn("No such file", refusal("absent.npy"))
        self.assertIn("is no .npy file", refusal("s.pcap"))
        np.save(path("other.npy"), np.zeros(3))
        self.assertIn("has other columns", refusal("other.npy"))
        with open(path("s.npy"), "rb") as file:
            content = file.read(300000)
        with open(path("short.npy"), "wb") as file:
            file.write(content)
        self.assertIn("is damaged", refusal("short.npy"))

    # The text of each number, as the recorder writes it.
    def test_the_array_is_the_csv_to_two_decimals(self):
        run("convert", "-q", "-f", "s.pcap", "-o", "s.csv")
        updates = vorn.updates(vorn.load(path("s.npy")))
        with open(path("s.csv"), newline="", encoding="ascii") as file:
            table = [row for row in csv.DictReader(file) if int(row["type"]) < 100]
        self.assertEqual(len(table), len(updates))
        columns = {name: updates[name] for name in (
            "type", "update_time", "update_milli_sec", "change_no", "last_px", "volume",
            "turnover", "open_interest", "highest_price", "lowest_price")}
        for side in ("bid", "ask"):
            columns[f"{side}_volume"] = updates[f"{side}_totvol"]
            columns[f"{side}_amount"] = updates[f"{side}_totamount"]
            for level in range(5):
                columns[f"{side}{level + 1}_volume"] = updates[f"{side}_vol"][:, level]
                columns[f"{side}{level + 1}_price"] = updates[f"{side}_px"][:, level]
        self.assertEqual(set(columns) | {"inst_id"}, set(table[0]))
        self.assertEqual([row["inst_id"].encode() for row in table], updates["inst_id"].tolist())
        for name, values in columns.items():
            text = "%.2f" if values.dtype.kind == "f" else "%d"
            self.assertEqual([row[name] for row in table],
                             [text % value for value in values.tolist()], name)

    def test_what_a_kill_leaves_loads(self):
        whole = vorn.load(path("s.npy"))
        for wanted in (1, 200_000, 2_000_000, 5_000_000):
            process = subprocess.Popen([PROGRAM, "convert", "-q", "-f", "s.pcap", "-o", "k.npy"],
                                       cwd=_directory.name)
            until = time.monotonic() + 60
            while process.poll() is None and time.monotonic() < until:
                try:
                    if os.stat(path("k.npy.part")).st_size >= wanted:
                        break
                except FileNotFoundError:
                    pass
            process.send_signal(signal.SIGKILL)
            process.wait()
            for name in ("k.npy.part", "k.npy"):
                if os.path.exists(path(name)) and os.stat(path(name)).st_size > 0:
                    rows = vorn.load(path(name))
                    self.assertTrue((rows == whole[:len(rows)]).all())
                    os.unlink(path(name))


class DocumentTest(unittest.TestCase):
    def test_table_of_columns_is_that_of_the_files(self):
        found = {}
        with io.open(DOC, encoding="utf-8") as file:
            for line in file:
                row = re.match(r"\| `(\w+)` \| (\d+) \| `([^`]+)` \|", line)
                if row:
                    found[row.group(1)] = (int(row.group(2)), row.group(3))
        expected = {}
        for name in _files.row.names:
            dtype, offset = _files.row.fields[name][:2]
            base = dtype.base.str.replace("|", "")
            shape = f"[{dtype.shape[0]}]" if dtype.shape else ""
            expected[name] = (offset, base + shape)
        self.assertEqual(found, expected)

    # Block for block, in one directory, as a reader would.
    def test_commands_run(self):
        with io.open(DOC, encoding="utf-8") as file:
            blocks = re.findall(r"```sh\n(.*?)```", file.read(), re.S)
        self.assertGreaterEqual(len(blocks), 4)
        environment = dict(os.environ)
        environment["PATH"] = os.path.dirname(PROGRAM) + ":" + environment["PATH"]
        environment["PYTHON"] = sys.executable
        if DUCKDB:
            environment["VORN_DUCKDB"] = DUCKDB
        ran = 0
        with tempfile.TemporaryDirectory() as directory:
            os.symlink(os.path.join(SOURCE, "python"), os.path.join(directory, "python"))
            for block in blocks:
                if ("parquet" in block and not DUCKDB) or (
                        "research.py" in block and "VORN_MATPLOTLIB" not in os.environ):
                    continue
                block = re.sub(r"\bpython3\b", '"$PYTHON"', block)
                done = subprocess.run(["bash", "-euc", block], cwd=directory, env=environment,
                                      capture_output=True, text=True, timeout=600, check=False)
                self.assertEqual(done.returncode, 0, block + done.stderr)
                ran += 1
        self.assertGreaterEqual(ran, 2)

    def test_python_examples_run(self):
        with io.open(DOC, encoding="utf-8") as file:
            examples = re.findall(r"```python\n(.*?)```", file.read(), re.S)
        self.assertGreaterEqual(len(examples), 1)
        for example in examples:
            done = subprocess.run([sys.executable, "-c", example.replace("session.npy", "s.npy")],
                                  cwd=_directory.name, capture_output=True, text=True, timeout=600,
                                  check=False)
            self.assertEqual(done.returncode, 0, example + done.stderr)


@unittest.skipUnless("VORN_MATPLOTLIB" in os.environ, "no matplotlib")
class ExampleTest(unittest.TestCase):
    def pictures(self, directory, *more):
        done = subprocess.run([sys.executable, EXAMPLE, path("s.npy"), "--pictures",
                               path(directory), *more], capture_output=True, text=True,
                              timeout=600, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stderr, "")
        names = [line.rsplit("/", 1)[1] for line in done.stdout.split()]
        self.assertEqual(names, ["research-mid-spread.png", "research-depth.png",
                                 "research-rates.png"])
        return {name: os.path.join(path(directory), name) for name in names}

    def test_draws_without_a_screen_and_always_the_same(self):
        from matplotlib.image import imread
        first = self.pictures("first")
        for name, file in first.items():
            picture = imread(file)[:, :, :3]
            self.assertGreater(picture.shape[0], 400, name)
            self.assertEqual(picture.shape[1], 990, name)
            ink = (picture.min(axis=2) < 0.9).mean()
            self.assertGreater(ink, 0.03, name)
            self.assertLess(ink, 0.6, name)
        for name, file in self.pictures("second").items():
            self.assertEqual(_digest(file), _digest(first[name]), name)

        self.bids_lie_below_asks(imread(first["research-depth.png"])[:, :800, :3])

    # By their colours, in every column that has both.
    def bids_lie_below_asks(self, picture):
        red, blue = picture[:, :, 0], picture[:, :, 2]
        bids, asks = blue - red > 0.3, red - blue > 0.3
        height = np.arange(len(picture))[:, None]
        with_both = bids.any(axis=0) & asks.any(axis=0)
        self.assertGreater(with_both.sum(), 200)
        mean = lambda side: (side * height).sum(axis=0)[with_both] / side.sum(axis=0)[with_both]
        self.assertTrue((mean(bids) > mean(asks)).all())

    def test_an_instrument_that_is_not_there_is_said(self):
        done = subprocess.run([sys.executable, EXAMPLE, path("s.npy"), "--instrument", "xx9999"],
                              capture_output=True, text=True, timeout=600, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("has no update of xx9999", done.stderr)


def _digest(name):
    with open(name, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


class Duckdb:
    """What DuckDB reads in a Parquet file, with the library itself."""

    def __init__(self):
        self.library = ctypes.CDLL(DUCKDB)
        self.database = ctypes.c_void_p()
        self.connection = ctypes.c_void_p()
        self.library.duckdb_result_error.restype = ctypes.c_char_p
        assert self.library.duckdb_open(None, ctypes.byref(self.database)) == 0
        assert self.library.duckdb_connect(self.database, ctypes.byref(self.connection)) == 0

    def run(self, sql):
        result = (ctypes.c_uint64 * 16)()
        if self.library.duckdb_query(self.connection, sql.encode(), ctypes.byref(result)) != 0:
            raise AssertionError(self.library.duckdb_result_error(ctypes.byref(result)).decode())
        self.library.duckdb_destroy_result(ctypes.byref(result))

    def close(self):
        self.library.duckdb_disconnect(ctypes.byref(self.connection))
        self.library.duckdb_close(ctypes.byref(self.database))


@unittest.skipUnless(DUCKDB, "no library of DuckDB")
class ParquetTest(unittest.TestCase):
    def convert(self, source, target, *more):
        run("convert", "-q", "-f", source, "-o", target, "--duckdb", DUCKDB, *more)

    # DuckDB writes a number of a CSV so that it reads back as the same one.
    def table(self, name):
        duckdb = Duckdb()
        duckdb.run("SET threads = 1")
        duckdb.run(f"COPY (SELECT * FROM '{path(name)}') TO '{path('back.csv')}' (HEADER)")
        duckdb.close()
        with open(path("back.csv"), newline="", encoding="ascii") as file:
            reader = csv.reader(file)
            names = next(reader)
            return names, list(zip(*reader))

    def test_it_is_the_array_row_for_row(self):
        self.convert("s.pcap", "s.parquet")
        names, columns = self.table("s.parquet")
        rows = vorn.load(path("s.npy"))
        expected = []
        for name in rows.dtype.names:
            values = rows[name]
            parts = [values] if values.ndim == 1 else list(values.T)
            for part, column in enumerate(parts):
                expected.append((name if values.ndim == 1 else f"{name}_{part + 1}", column))
        self.assertEqual(names, [name for name, _ in expected])
        for (name, values), texts in zip(expected, columns):
            self.assertEqual(len(texts), len(rows))
            if values.dtype.kind == "S":
                self.assertEqual([text.encode() for text in texts], values.tolist(), name)
            else:
                kind = float if values.dtype.kind == "f" else int
                self.assertEqual([kind(text) for text in texts], values.tolist(), name)

    def test_it_is_the_same_from_every_source_and_every_time(self):
        digests = set()
        for source, target in (("s.pcap", "a.parquet"), ("s.pcap", "b.parquet"),
                               ("s.npy", "c.parquet")):
            self.convert(source, target)
            digests.add(_digest(path(target)))
        self.assertEqual(len(digests), 1)
        self.assertFalse([name for name in os.listdir(_directory.name) if ".rows.npy" in name])

    def test_a_name_with_a_quote_is_a_name(self):
        self.convert("s.npy", "it's.parquet", "--limit", "5000")
        with open(path("it's.parquet"), "rb") as file:
            self.assertEqual(file.read(4), b"PAR1")

    def test_no_row_is_a_file_as_well(self):
        self.convert("s.npy", "none.parquet", "--from", "23:00", "--to", "23:30")
        names, columns = self.table("none.parquet")
        self.assertEqual(len(names), 66)
        self.assertEqual(columns, [])

    def test_what_cannot_be_written_leaves_nothing(self):
        done = subprocess.run([PROGRAM, "convert", "s.npy", "-o", "no/such/x.parquet", "--duckdb",
                               DUCKDB], cwd=_directory.name, capture_output=True, text=True,
                              timeout=600, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)


if __name__ == "__main__":
    unittest.main()
