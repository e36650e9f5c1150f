# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Looks whether the links of the documents lead somewhere: a relative one to a file of the tree, an
anchor to a heading of its page.
"""

import collections
import pathlib
import re

from command import OneLineParser, run

ROOT = pathlib.Path(__file__).resolve().parent.parent
BLOCK = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ +(.*?) *$", re.MULTILINE)
ELSEWHERE = re.compile(r"[a-z]+:")


def pages():
    found = [*ROOT.glob("*.md")]
    for folder in ROOT.iterdir():
        if folder.is_dir() and folder.name != "build" and not folder.name.startswith("."):
            found += folder.rglob("*.md")
    return sorted(found)


def prose(page):
    return BLOCK.sub("", page.read_text(encoding="utf-8"))


def anchors(page):
    """Of each heading, as they are made of it: a second one of the same name gets a number."""
    made = collections.Counter()
    for heading in HEADING.findall(prose(page)):
        text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", text).replace(" ", "-")
        made[anchor] += 1
    return {f"{anchor}-{number}" if number else anchor
            for anchor, count in made.items() for number in range(count)}


def wrong_with(page, link):
    """What is wrong with a link, or nothing."""
    path, _, anchor = link.partition("#")
    target = (page.parent / path).resolve() if path else page
    if not target.exists():
        return "there is no such file"
    if anchor and anchor not in anchors(target):
        return "there is no such heading"
    return ""


def main():
    OneLineParser("links.py", __doc__).parse_args()
    status = 0
    for page in pages():
        for link in LINK.findall(prose(page)):
            wrong = "" if ELSEWHERE.match(link) else wrong_with(page, link)
            if wrong:
                status = 1
                print(f"{page.relative_to(ROOT)}: {link}: {wrong}")
    return status


if __name__ == "__main__":
    run("links.py", main)
