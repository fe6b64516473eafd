#!/usr/bin/env python3
"""Turns a public header into what doxygen reads: docs_filter.py FILE. Headers have plain comments, for
people who read them in an editor; each becomes the comment of what it stands above or behind."""

import re
import sys

# What a header leaves to the eye, because its name says it in the place where it stands.
SELF_EXPLAINING = {
    "#define MASK_SHFE_2PS": "The bits of UEnableMask.mask, one a feed.",
    "#define VORN_MD_COUNTERS_VERSION": "Version of vorn_md_counters_t.",
    "typedef instrument instrument_t;": "The same by another name.",
    "typedef share share_t;": "The same by another name.",
    "typedef struct vorn_md_event_t {": "What an event tells.",
    "    uint8_t mask;": "All bits at once.",
}


class Header:
    """One public header: its plain comments become documentation."""

    def __init__(self, text):
        # What only the compiler reads, and what has no name that a reader would look up.
        text = re.sub(r"^#define \w+_H\n", "", text, flags=re.M)
        text = re.sub(r"^#if(?:n?def)? .*\n|^#endif.*\n|^#else\n|^#pragma .*\n|^extern \"C\" \{\n", "", text,
                      flags=re.M)
        text = re.sub(r"^#define (MD_STATIC_ASSERT|MD_ASSERT_OFFSET|VORN_EXPORT|VORN_MD_API)\b.*(?:\\\n.*)*\n",
                      "", text, flags=re.M)
        text = re.sub(r"^#undef .*\n|^(?:MD_STATIC_ASSERT|MD_ASSERT_OFFSET|static_assert)\((?:.|\n)*?\);\n", "",
                      text, flags=re.M)
        for line, says in SELF_EXPLAINING.items():
            text = text.replace(f"\n{line}", f"\n/* {says} */\n{line}")
        self.lines = text.split("\n")

    def convert(self):
        """The header for doxygen."""
        out, first = [], True
        for line in self.lines:
            line = re.sub(r"^(\s*[^\s/*].*?\S?)\s*/\* ?(.*)$", r"\1 /**< \2", line)
            line = re.sub(r"^(\s*[^\s/*].*?[;,{}])\s+// ?(.*)$", r"\1 ///< \2", line)
            line = re.sub(r"^(\s*)/\*(?!\*)", r"\1/**", line)
            line = re.sub(r"^(\s*)//(?!/) ?", r"\1/// ", line)
            if first and re.match(r"^\s*(/\*\*|///)", line):
                line = re.sub(r"^(\s*)(/\*\*|///)", r"\1\2 @file\n\1 *" if "/**" in line else r"\1/// @file\n\1///",
                              line)
                first = False
            out.append(line)
        return "\n".join(self.groups(out))

    @staticmethod
    def groups(lines):
        """A comment above a run of macros or constants is the comment of all of them."""
        text = "\n".join(lines)
        single = r"(?:#define .*\n|(?:inline )?constexpr .*;.*\n)"
        pattern = re.compile(rf"((?:^/\*\*(?:(?!\*/)(?:.|\n))*\*/\n|(?:^/// .*\n)+))((?:{single}){{2,}})", re.M)
        return pattern.sub(lambda m: f"/**@{{*/\n{m[1]}{m[2]}/**@}}*/\n", text).split("\n")


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        sys.stdout.write(Header(file.read()).convert())
