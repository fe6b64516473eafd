"""research.py BUS: what a feed that has ended has left in its bus."""

import sys

import vorn

bus = vorn.open(sys.argv[1])
updates = sum(len(batch.updates) for batch in bus.follow(oldest=True))
table = bus.table()
assert (table["change_no"] > 0).any()
print("updates", updates, "restarts", bus.counters["restarts"])
print("instruments", len(table), file=sys.stderr)
