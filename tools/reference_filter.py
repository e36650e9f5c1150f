# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""What Doxygen reads of a file.

A page has the headings and links that a reader of the repository follows. Here each heading gets an
identifier, and each link to a page, a section or an example becomes a reference, so that Doxygen
tells which of them lead nowhere. A header's first comment describes the file; what nobody calls by
name, such as a deleted copy constructor, is left out.
"""

import os
import pathlib
import re
import sys

from command import OneLineParser, run

EXAMPLES = pathlib.PurePath("examples")
# Deleted and defaulted members for copying, and destructors that say nothing.
NAMELESS = re.compile(r"""
    ^\s+ (?: [\w<>]+&\s+operator=\( | (?:constexpr\s+)?\w+\( ) const\s[\w<>]+&\)\s
        (?:noexcept\s)? =\s(?:delete|default);$
    | ^\s+ ~\w+\(\)\snoexcept\soverride(?:;|\s\{\})$""", re.VERBOSE)

# Code is left as it is, but for that of which a link is made.
MARKUP = re.compile(r"""
    ^\ *```.*?^\ *```$
    | (?P<link> \[ (?P<text> (?: [^][`] | `[^`]*` )+ ) \] \( (?!\w+:) (?P<target>[^)\s]+) \) )
    | `[^`]+`
    | (?P<name> Sorvane\ signals )""", re.VERBOSE | re.MULTILINE | re.DOTALL)


def identifier(path, section=""):
    """Every page is in the same space of names."""
    return re.sub(r"[^a-z0-9]+", "-", f"{path.with_suffix('')} {section}".lower()).strip("-")


def slug(heading):
    """The name of a section, as the repository's pages have it."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def reference(page, text, target):
    """What takes a link's place."""
    name, _, section = target.partition("#")
    path = pathlib.PurePath(os.path.normpath(page.parent / name)) if name else page
    if path.suffix == ".md":
        return f"[{text}](@ref {identifier(path, section)})"
    if path.parent == EXAMPLES:
        return f"[{text}](@ref {path.name})"
    # The reader of the reference has no repository at hand.
    return f"{text} (`{path}`)" if os.path.exists(path) else f"[{text}](@ref {path})"


def page_lines(page, lines):
    fence = None
    for line in lines:
        mark = re.match(r" *(```+|~~~+)", line)
        if mark and (fence is None or line.strip().startswith(fence)):
            fence = mark[1] if fence is None else None
        elif fence is None:
            heading = re.match(r"(#+) (.*)", line)
            if heading:
                section = slug(heading[2]) if len(heading[1]) > 1 else ""
                line = f"{line} {{#{identifier(page, section)}}}"
        yield line


def page_text(page, text):
    def replaced(found):
        if found["link"]:
            # Doxygen quotes it, in one line, and takes it for plain text.
            text = " ".join(found["text"].split()).replace("`", "").replace('"', "&quot;")
            return reference(page, text, found["target"])
        # The library, not the namespace.
        return "%Sorvane signals" if found["name"] else found[0]

    text = "\n".join(page_lines(page, text.splitlines())) + "\n"
    return MARKUP.sub(replaced, text)


def header_text(text):
    text = re.sub(r"\A(?:// SPDX-.*\n|//\n|\n)+", "", text)
    head = re.match(r"(?://.*\n)+", text)
    lines = [f"/{line}" for line in head[0].splitlines()]
    former = ""
    for line in text[head.end():].splitlines():
        commented = former.lstrip().startswith("///")
        lines.append(line if commented or not NAMELESS.match(line) else "")
        former = line
    return "\n".join(["/// @file", *lines]) + "\n"


def main():
    parser = OneLineParser("reference_filter.py", __doc__)
    parser.add_argument("file", metavar="FILE",
                        help="in the root of the tree, or below the directory that Doxygen runs in")
    path = pathlib.PurePath(os.path.relpath(parser.parse_args().file))
    text = pathlib.Path(path).read_text(encoding="utf-8")
    sys.stdout.write(page_text(path, text) if path.suffix == ".md" else header_text(text))
    return 0


if __name__ == "__main__":
    run("reference_filter.py", main)
