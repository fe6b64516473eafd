"""What --help of the program says, in parts."""

import re
import subprocess


class Help:
    """summary, usage, options and arguments as (name, text), examples as (command, meaning),
    subcommands as (name, text), and other sections as (title, lines), in their order."""

    def __init__(self, program, *words):
        text = subprocess.run([program, *words, "--help"], check=True, capture_output=True,
                              text=True).stdout
        lines = text.splitlines()
        self.summary = lines[0].split(": ", 1)[1]
        self.usage = ""
        self.options, self.arguments, self.subcommands, self.examples = [], [], [], []
        self.others = []
        title, body = None, []
        for line in lines[1:] + ["end:"]:
            if line.startswith("usage: "):
                self._take(title, body)
                self.usage, title, body = line[len("usage: "):], None, []
            elif re.match(r"\S.*:$", line):
                self._take(title, body)
                title, body = line[:-1], []
            elif line.strip():
                body.append(line)

    def _take(self, title, body):
        if title == "examples":
            self.examples = [tuple(re.split(r"\s{2,}", line.strip(), maxsplit=1)) for line in body]
        elif title in ("options", "arguments", "subcommands"):
            setattr(self, title, _entries(body))
        elif title is not None:
            self.others.append((title, body))

    def option_names(self):
        """(long and short names, what the option takes or "")."""
        for name, _ in self.options:
            words = name.replace(",", "").split()
            yield [word for word in words if word.startswith("-")], \
                " ".join(word for word in words if not word.startswith("-"))


TEXT_COLUMN = 28  # where the text of an entry begins; a longer name has a line of its own


def _entries(lines):
    entries = []
    for line in lines:
        if line[:TEXT_COLUMN].strip() == "":
            entries[-1][1] = (entries[-1][1] + " " + line.strip()).strip()
        elif line[TEXT_COLUMN - 1:TEXT_COLUMN] == " ":
            entries.append([line[:TEXT_COLUMN].strip(), line[TEXT_COLUMN:].strip()])
        else:
            entries.append([line.strip(), ""])
    return [tuple(entry) for entry in entries]
