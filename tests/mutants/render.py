"""Writes a file in which every place can be each of its changes, chosen when the program runs.

    a < b   becomes   (vorn_mutant_is(7) ? (a <= b) : (a < b))

so that one compilation serves all mutants. Inside a change the text stands as it was: one mutant is
one change. Lines keep their numbers, which are in the log.
"""

import re

# Included before everything else of every C++ file.
HEADER = """#pragma once
extern int vorn_mutant;
extern unsigned char* vorn_mutants_reached;
inline bool vorn_mutant_is(int number) {
    if (vorn_mutants_reached != nullptr) {
        vorn_mutants_reached[number] = 1;
    }
    return vorn_mutant == number;
}
"""

# Behind a source file that is in every program.
DEFINITION = """
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
int vorn_mutant = -1;
unsigned char* vorn_mutants_reached = nullptr;
__attribute__((constructor(101))) static void choose_mutant() {
    const char* text = std::getenv("VORN_MUTANT");
    vorn_mutant = text == nullptr ? -1 : std::atoi(text);
    const char* path = std::getenv("VORN_MUTANTS_REACHED");
    const int file = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    if (file < 0) {
        return;
    }
    const off_t size = ::lseek(file, 0, SEEK_END);
    void* bytes = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED,
                         file, 0);
    ::close(file);
    vorn_mutants_reached = bytes == MAP_FAILED ? nullptr : static_cast<unsigned char*>(bytes);
}
"""


def one_line(text):
    return re.sub(r"\s*\n\s*", " ", re.sub(r"//[^\n]*", "", text))


def render(source, places, numbers):
    """`numbers` gives the mutant's number for (place, index of its change), or None."""
    # Statements come first: one may begin where its expression does.
    ordered = sorted(places, key=lambda place: (place.start, -place.end, not place.statement))
    text, _ = _render_range(source, ordered, 0, 0, len(source), numbers)
    return text


def _render_range(source, places, index, start, end, numbers):
    """The text of [start, end) with the places from `index` on that lie in it."""
    parts = []
    at = start
    while index < len(places) and places[index].start < end:
        place = places[index]
        if place.start < at or place.end > end:
            index += 1  # overlaps without nesting: not of the tree
            continue
        parts.append(source[at:place.start].decode())
        inner, index = _render_range(source, places, index + 1, place.start, place.end, numbers)
        parts.append(_choose(place, inner, numbers))
        at = place.end
    parts.append(source[at:end].decode())
    return "".join(parts), index


def _choose(place, inner, numbers):
    chosen = [(numbers(place, i), text) for i, (_, text) in enumerate(place.changes)]
    chosen = [(number, text) for number, text in chosen if number is not None]
    if not chosen:
        return inner
    if place.statement:
        return f"if (!vorn_mutant_is({chosen[0][0]})) {inner}"
    choices = "".join(f"vorn_mutant_is({number}) ? ({one_line(text)}) : "
                      for number, text in chosen)
    return f"({choices}({inner}))"
