"""Finds the places of a C++ file where one small change makes a mutant, from clang's syntax tree.

A place is a range of the file with the texts that may stand there instead. Kinds of change:
operators exchanged (< for <=, + for -, && for ||, ++ for --), numbers and named constants off by
one, conditions and results negated, statements left out.

Left alone is what a compiler needs as a constant (array sizes, case labels, constexpr, enumerators)
and everything inside a macro's arguments, log lines that is, which are left out as whole
statements.
"""

import dataclasses
import sys

try:
    from clang import cindex
except ModuleNotFoundError:
    sys.path.append("/usr/lib/python3/dist-packages")  # another Python than Debian's
    from clang import cindex

K = cindex.CursorKind

OPERATORS = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "==": ["!="], "!=": ["=="], "&&": ["||"], "||": ["&&"],
    "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"],
    "<<": [">>"], ">>": ["<<"], "&": ["|"], "|": ["&"], "^": ["|"],
    "+=": ["-="], "-=": ["+="], "*=": ["/="], "/=": ["*="], "|=": ["&="], "&=": ["|="],
    "<<=": [">>="], ">>=": ["<<="], "^=": ["|="], "%=": ["*="],
}
COMPARISONS = {"<", "<=", ">", ">=", "==", "!="}
REMOVABLE = {K.CALL_EXPR, K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR, K.UNARY_OPERATOR,
             K.CXX_DELETE_EXPR, K.UNEXPOSED_EXPR, K.BREAK_STMT, K.CONTINUE_STMT,
             K.CXX_THROW_EXPR}
# What they say besides changes nothing.
HINTS = {"__builtin_expect", "_mm_prefetch"}
# Of objects that the compiler initialises.
CONSTANT_CLASSES = {"CMdMonitor", "CMdCounter"}
NUMBERS = {cindex.TypeKind.UCHAR, cindex.TypeKind.USHORT, cindex.TypeKind.UINT,
           cindex.TypeKind.ULONG, cindex.TypeKind.SCHAR, cindex.TypeKind.SHORT,
           cindex.TypeKind.INT, cindex.TypeKind.LONG, cindex.TypeKind.DOUBLE}


@dataclasses.dataclass
class Place:
    start: int
    end: int
    statement: bool = False  # left out, not replaced
    changes: list = dataclasses.field(default_factory=list)  # (kind, text)


class Finder:
    """Collects the places of the project's files that one translation unit consists of."""

    def __init__(self, wanted):
        self.wanted = wanted  # path -> bytes
        self.places = {path: {} for path in wanted}
        self.macros = {}

    def parse(self, source, arguments):
        unit = cindex.Index.create().parse(
            str(source), args=arguments,
            options=cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD)
        errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            raise RuntimeError(f"{source}: {errors[0]}")
        self.macros = {path: [] for path in self.wanted}
        top = []
        for cursor in unit.cursor.get_children():
            path = cursor.location.file.name if cursor.location.file else None
            if path not in self.wanted:
                continue
            if cursor.kind == K.MACRO_INSTANTIATION:
                self.macros[path].append(
                    (cursor.extent.start.offset, cursor.extent.end.offset, cursor.spelling))
            elif cursor.kind not in (K.MACRO_DEFINITION, K.INCLUSION_DIRECTIVE):
                top.append((path, cursor))
        for path, cursor in top:
            self.visit(path, cursor, False)

    # ---- helpers

    def text(self, path, start, end):
        return self.wanted[path][start:end].decode()

    def range_of(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def in_macro(self, path, start, end):
        return any(a <= start and end <= b for a, b, _ in self.macros[path])

    def add(self, path, cursor, kind, text, statement=False):
        start, end = self.range_of(cursor)
        if start >= end or (self.in_macro(path, start, end) and kind != "constant"):
            return
        place = self.places[path].setdefault((start, end, statement), Place(start, end, statement))
        if (kind, text) not in place.changes:
            place.changes.append((kind, text))

    def is_constant_function(self, path, cursor):
        start, end = self.range_of(cursor)
        head = self.text(path, start, end).split("{", 1)[0]
        return "constexpr" in head or "= default" in head or "= delete" in head

    def operator_of(self, path, left, right):
        between = self.text(path, left.extent.end.offset, right.extent.start.offset)
        return between.strip().split()[0] if between.strip() else ""

    # ---- the walk

    def visit(self, path, cursor, inside):
        """`inside` a function's body, where something is executed."""
        kind = cursor.kind
        if cursor.location.file is None or cursor.location.file.name != path:
            return
        if kind in (K.STATIC_ASSERT, K.ENUM_DECL, K.TYPE_ALIAS_DECL, K.CXX_UNARY_EXPR,
                    K.PARM_DECL):
            return
        children = list(cursor.get_children())
        if kind in (K.FUNCTION_DECL, K.CXX_METHOD, K.CONSTRUCTOR, K.DESTRUCTOR,
                    K.FUNCTION_TEMPLATE, K.CONVERSION_FUNCTION):
            if not cursor.is_definition() or self.is_constant_function(path, cursor):
                return
            for child in children:
                self.visit(path, child, True)
            return
        if kind in (K.VAR_DECL, K.FIELD_DECL):
            text = self.text(path, *self.range_of(cursor))
            start = cursor.extent.start.offset
            line = self.text(path, self.text(path, 0, start).rfind("\n") + 1, start)
            if "constexpr" in text.split("=")[0] + line or cursor.is_bitfield():
                return
            if cursor.semantic_parent.spelling in CONSTANT_CLASSES:
                return
            inside = True  # an initial value is executed too
            children = [child for child in children
                        if not (child.kind == K.INTEGER_LITERAL and self.text(
                            path, 0, child.extent.start.offset).rstrip().endswith("["))]
        if inside:
            self.changes_of(path, cursor, children)
        if kind == K.CASE_STMT:
            children = children[1:]
        if kind == K.CALL_EXPR and cursor.spelling in HINTS:
            children = children[:2]  # the function, and what it passes on
        for child in children:
            self.visit(path, child, inside)

    def changes_of(self, path, cursor, children):
        kind = cursor.kind
        start, end = self.range_of(cursor)
        if kind == K.COMPOUND_STMT:
            for child in children:
                if child.kind in REMOVABLE or (
                        child.kind == K.RETURN_STMT and not list(child.get_children())):
                    self.add(path, child, "statement left out", "", statement=True)
            self.log_lines(path, start, end)
        elif kind in (K.BINARY_OPERATOR, K.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
            left, right = children
            if self.in_macro(path, start, end):
                return
            operator = self.operator_of(path, left, right)
            lhs = self.text(path, start, left.extent.end.offset)
            rhs = self.text(path, right.extent.start.offset, end)
            for other in OPERATORS.get(operator, []):
                self.add(path, cursor, "operator", f"{lhs} {other} {rhs}")
        elif kind == K.UNARY_OPERATOR:
            text = self.text(path, start, end)
            for old, new in (("++", "--"), ("--", "++")):
                if text.startswith(old):
                    self.add(path, cursor, "operator", new + text[2:])
                elif text.endswith(old):
                    self.add(path, cursor, "operator", text[:-2] + new)
            if text[:1] in ("!", "~") or (text[:1] == "-" and text[1:2] != "-"):
                self.add(path, cursor, "operator", text[1:])
        elif kind in (K.INTEGER_LITERAL, K.FLOATING_LITERAL, K.CXX_BOOL_LITERAL_EXPR):
            self.literal(path, cursor)
        elif kind == K.DECL_REF_EXPR:
            self.named_constant(path, cursor)
        elif kind in (K.IF_STMT, K.WHILE_STMT) and children:
            condition = children[0]
            if condition.kind not in (K.DECL_STMT, K.VAR_DECL):
                self.negate(path, condition, "condition")
        elif kind == K.CONDITIONAL_OPERATOR and children:
            self.negate(path, children[0], "condition")
        elif kind == K.RETURN_STMT and children:
            if children[0].type.kind == cindex.TypeKind.BOOL:
                self.negate(path, children[0], "result")

    def log_lines(self, path, start, end):
        for at, to, name in self.macros[path]:
            if name in ("MD_LOG", "MD_LOG_AS") and start <= at and to <= end:
                key = (at, to, True)
                place = self.places[path].setdefault(key, Place(at, to, True))
                place.changes = [("log line left out", "")]

    def negate(self, path, cursor, what):
        # A comparison's opposite is among its operators, and a literal's is the literal's.
        if cursor.kind == K.CXX_BOOL_LITERAL_EXPR:
            return
        inner = list(cursor.get_children())
        if cursor.kind == K.BINARY_OPERATOR and len(inner) == 2 and self.operator_of(
                path, *inner) in COMPARISONS:
            return
        text = self.text(path, *self.range_of(cursor))
        if not text.startswith("!"):
            self.add(path, cursor, f"{what} negated", f"!({text})")

    def literal(self, path, cursor):
        start, end = self.range_of(cursor)
        text = self.text(path, start, end)
        if any(a <= start and end <= b for a, b, _ in self.macros[path]):
            self.object_macro(path, cursor, start, end)
            return
        if cursor.kind == K.CXX_BOOL_LITERAL_EXPR:
            self.add(path, cursor, "constant", "false" if text == "true" else "true")
            return
        self.add(path, cursor, "constant", f"({text} + 1)")
        if text.rstrip("uUlLfF") not in ("0", "0.0"):
            self.add(path, cursor, "constant", f"({text} - 1)")

    # A macro that is one number, as RECV_BUF_SIZE.
    def object_macro(self, path, cursor, start, end):
        if (start, end) in ((a, b) for a, b, _ in self.macros[path]):
            text = self.text(path, start, end)
            if text.isidentifier() and not text.startswith("__ATOMIC"):  # orders of memory
                self.add(path, cursor, "constant", f"({text} + 1)")
                self.add(path, cursor, "constant", f"({text} - 1)")

    def named_constant(self, path, cursor):
        what = cursor.referenced
        if what is None or what.kind != K.VAR_DECL or not what.type.is_const_qualified():
            return
        if self.in_macro(path, *self.range_of(cursor)):
            return
        name = self.text(path, *self.range_of(cursor))
        if what.type.get_canonical().kind not in NUMBERS or what.semantic_parent.kind not in (
                K.NAMESPACE, K.TRANSLATION_UNIT, K.STRUCT_DECL, K.CLASS_DECL):
            return
        if what.type.get_canonical().kind == cindex.TypeKind.DOUBLE:
            self.add(path, cursor, "constant", f"({name} * 2)")
            return
        for sign in "+-":
            self.add(path, cursor, "constant", f"static_cast<decltype({name})>({name} {sign} 1)")
