"""Which lines of the model a run has met: a rule that no scenario reaches is held against nothing."""

import pathlib
import sys
import types

from tests import model

_FOLDER = str(pathlib.Path(model.__file__).parent)


class RulesMet:
    """Counts while `with` lasts; slow, for a few hundred scenarios."""

    def __init__(self):
        self.met = {}

    def __enter__(self):
        sys.settrace(self._call)
        return self

    def __exit__(self, *_):
        sys.settrace(None)

    def _call(self, frame, event, argument):
        name = frame.f_code.co_filename
        if not name.startswith(_FOLDER):
            return None
        lines = self.met.setdefault(name, set())
        lines.add(frame.f_lineno)

        def local(inner, what, _):
            if what == "line":
                lines.add(inner.f_lineno)
            return local

        return local

    def report(self):
        """(met, all, ["file:line text", ...] of the lines not met), inside functions only."""
        met = total = 0
        missed = []
        for path in sorted(pathlib.Path(_FOLDER).glob("*.py")):
            source = path.read_text(encoding="utf-8")
            lines = _lines_inside_functions(compile(source, str(path), "exec"))
            seen = self.met.get(str(path), set()) & lines
            met += len(seen)
            total += len(lines)
            text = source.splitlines()
            missed += [f"{path.name}:{number} {text[number - 1].strip()}"
                       for number in sorted(lines - seen)]
        return met, total, missed


def _lines_inside_functions(code, inside=False):
    lines = set()
    if inside:
        first = code.co_firstlineno
        lines = {line for _, _, line in code.co_lines() if line is not None and line != first}
    for constant in code.co_consts:
        if isinstance(constant, types.CodeType):
            is_function = inside or bool(constant.co_flags & 0x2)
            lines |= _lines_inside_functions(constant, is_function)
    return lines
