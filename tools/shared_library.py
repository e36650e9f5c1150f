# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Looks at what the shared library asks of the dynamic linker. Each relocation costs every process
that loads it a write, and the page that is written a copy; so there is to be none but those of
virtual tables and of what the linker itself adds. What there is beyond that is known by name here.
"""

import bisect
import re
import subprocess
import sys

from command import OneLineParser, run

# Objects that are told where something lies, and so are written at the start.
KNOWN = (
    # Tell a signal's subscriptions apart by the address that is called.
    "Sorvane::(anonymous namespace)::entries",
    # Constant-initialised, and with virtual tables or pointers of their own.
    "Sorvane::(anonymous namespace)::noTable",
    "Sorvane::(anonymous namespace)::noTableForGuest",
    "Sorvane::(anonymous namespace)::noTableForHost",
    "Sorvane::SVSignalHandlerManager::signalDispositionSet",
    "Sorvane::svregistry",
    # What the compiler puts together of addresses, to copy them at once.
    "a constant without a name",
)
# The linker's tables, and what the compiler makes of classes and of catching exceptions.
SECTIONS = (".got", ".got.plt", ".init_array", ".fini_array")
MADE_BY_COMPILER = ("vtable for ", "typeinfo for ", "DW.ref.", "__dso_handle")


def lines_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()


class Ranges:
    """What lies at an address, of things that have one and a size."""

    def __init__(self, things):
        self._things = sorted(things)

    def at(self, address):
        index = bisect.bisect_right(self._things, (address, sys.maxsize, "")) - 1
        if index >= 0:
            begin, size, name = self._things[index]
            if begin <= address < begin + size:
                return name
        return "a constant without a name"


def sections_of(library):
    pattern = r" *\[ *\d+\] (\S+) +(\S+) +([0-9a-f]+) [0-9a-f]+ ([0-9a-f]+) \S+ +(\w*)"
    for line in lines_of("readelf", "--section-headers", "--wide", library):
        found = re.match(pattern, line)
        # What each thread has lies nowhere by itself.
        if found and "T" not in found[5]:
            yield int(found[3], 16), int(found[4], 16), found[1]


def symbols_of(library):
    for line in lines_of("nm", "--print-size", "--demangle", library):
        found = re.match(r"([0-9a-f]+) (?:([0-9a-f]+) )?[dDrRVu] (.*)", line)
        if found:
            yield int(found[1], 16), int(found[2] or "1", 16), found[3]


def relocations_beyond_tables(library):
    """The objects that are relocated, one for each relocation."""
    sections, symbols = Ranges(sections_of(library)), Ranges(symbols_of(library))
    found = []
    for line in lines_of("readelf", "--relocs", "--wide", library):
        relocation = re.match(r"([0-9a-f]{8,}) +[0-9a-f]+ R_", line)
        if relocation:
            address = int(relocation[1], 16)
            name = symbols.at(address)
            if sections.at(address) not in SECTIONS and not name.startswith(MADE_BY_COMPILER):
                found.append(name)
    return found


def asks_for_thread_locals(library):
    """Whether a thread's own variables are looked up by a call, which may allocate."""
    return any(line.split()[-1].startswith("__tls_get_addr")
               for line in lines_of("nm", "--dynamic", "--undefined-only", library))


def flags_of(library):
    return " ".join(line for line in lines_of("readelf", "--dynamic", "--wide", library)
                    if re.search(r"\((FLAGS|FLAGS_1|TEXTREL)\)", line))


def mistakes(library):
    flags = flags_of(library)
    for wanted in ("NOW", "NODELETE"):
        if wanted not in flags:
            yield f"it is linked without {wanted}"
    if "TEXTREL" in flags:
        yield "its code is relocated"
    if asks_for_thread_locals(library):
        yield "it looks up by a call what each thread has, and that may allocate"
    for name in sorted(set(relocations_beyond_tables(library)) - set(KNOWN)):
        yield f"{name} is relocated"


def main():
    parser = OneLineParser("shared_library.py", __doc__)
    parser.add_argument("library", metavar="LIBRARY")
    found = list(mistakes(parser.parse_args().library))
    for mistake in found:
        print(mistake)
    return 1 if found else 0


if __name__ == "__main__":
    run("shared_library.py", main)
