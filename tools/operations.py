# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Compares the guide's table of operations with the public headers: each public operation stands
in the section of its class, and nothing stands there that is none.
"""

import pathlib
import re

from command import OneLineParser, run

ROOT = pathlib.Path(__file__).parent.parent
PAGE = ROOT / "docs" / "guide" / "operations.md"
FREE = "Functions"
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/|^#[^\n]*", re.DOTALL | re.MULTILINE)
CLASS = re.compile(r"class SORVANE_API (\w+)[^;{]*\{")
NAME = re.compile(r"(operator\s*(?:\(\)|[^\s(\w]+|new|delete)(?:\[\])?|~?\b\w+)\s*\(")
ROW = re.compile(r"^\| (`[^|]*`) \|", re.MULTILINE)


def with_its_includes(header, found):
    """A header and what it includes of the tree."""
    if header not in found:
        found.add(header)
        for name in re.findall(r'^#include "(.*)"', header.read_text(encoding="utf-8"), re.M):
            with_its_includes((header.parent / name).resolve(), found)


def public_headers():
    found = set()
    for header in (ROOT / "libsrc" / "include" / "sorvane").glob("*.h"):
        with_its_includes(header.resolve(), found)
    return sorted(found)


def end_of_block(text, begin):
    """Behind the brace that closes the one before `begin`."""
    depth = 1
    while depth > 0:
        depth += {"{": 1, "}": -1}.get(text[begin], 0)
        begin += 1
    return begin


def without_blocks(text):
    while "{" in text:
        text = re.sub(r"\{[^{}]*\}", ";", text)
    return text


def names_in(statements):
    """The names of the functions that are declared, without those that are deleted."""
    names = set()
    for statement in statements.split(";"):
        found = NAME.search(re.sub(r"__attribute__\s*\(\(.*?\)\)\)?", "", statement))
        if found and not re.search(r"=\s*delete|\b(using|friend|static_assert)\b", statement):
            names.add(re.sub(r"\s+", " ", found[1].strip()))
    return names


def public_part(body):
    parts = re.split(r"\b(public|protected|private):", without_blocks(body))
    return ";".join(text for access, text in zip(parts[1::2], parts[2::2]) if access == "public")


def declared():
    """The operations of each public class, and the functions that belong to none."""
    operations = {FREE: set()}
    for header in public_headers():
        text = COMMENT.sub("", header.read_text(encoding="utf-8"))
        while found := CLASS.search(text):
            end = end_of_block(text, found.end())
            operations[found[1]] = names_in(public_part(text[found.end():end - 1]))
            text = text[:found.start()] + text[end:]
        # What only throws, for the headers, is no operation.
        text = re.sub(r"\[\[noreturn\]\] SORVANE_API[^;]*;", "", text)
        for function in re.findall(r"\bSORVANE_(?:PLAIN_)?API\s+([^;{]*\([^;{]*)", text):
            if "::" not in function.split("(")[0].replace("std::", ""):
                operations[FREE] |= names_in(function)
    return operations


def described():
    """What stands in the first column of each section."""
    sections = re.split(r"^## `?(\w+)`?$", PAGE.read_text(encoding="utf-8"), flags=re.M)
    return {title: {name for cell in ROW.findall(text) for name in re.findall(r"`([^`]*)`", cell)}
            for title, text in zip(sections[1::2], sections[2::2])}


def main():
    OneLineParser("operations.py", __doc__).parse_args()
    page, operations = described(), declared()
    wrong = []
    for title in sorted(operations.keys() | page.keys()):
        names, shown = operations.get(title, set()), page.get(title, set())
        wrong += [f"{title}: {name} is missing" for name in sorted(names - shown)]
        wrong += [f"{title}: {name} is no operation" for name in sorted(shown - names)]
    for line in wrong:
        print(f"{PAGE.relative_to(ROOT)}: {line}")
    return 1 if wrong else 0


if __name__ == "__main__":
    run("operations.py", main)
