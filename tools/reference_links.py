# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

"""Tells which links of the reference lead to no page, or to no place in it. Doxygen itself knows
only those that it has made.
"""

import html
import pathlib
import re
import urllib.parse

from command import OneLineParser, run

LINK = re.compile(r'(?:href|src)="([^"]+)"')
PLACE = re.compile(r'(?:id|name)="([^"]+)"')


def places(page, known={}):
    if page not in known:
        known[page] = set(PLACE.findall(page.read_text(encoding="utf-8")))
    return known[page]


def leads_somewhere(page, link):
    path, _, place = urllib.parse.unquote(link).partition("#")
    target = page.parent / path if path else page
    return target.exists() and (not place or place in places(target))


def main():
    parser = OneLineParser("reference_links.py", __doc__)
    parser.add_argument("root", metavar="FOLDER", type=pathlib.Path, help="of the reference")
    root = parser.parse_args().root
    links = [(page, html.unescape(link)) for page in sorted(root.glob("*.html"))
             for link in LINK.findall(page.read_text(encoding="utf-8"))]
    # The menu is made when a page is shown.
    links += [(root / "index.html", link) for link in
              re.findall(r'url:"([^"]+)"', (root / "menudata.js").read_text(encoding="utf-8"))]
    # Those that leave the reference have a scheme.
    broken = sorted({f"{page.name}: {link}" for page, link in links
                     if not re.match(r"\w+:", link) and not leads_somewhere(page, link)})
    print(*broken, sep="\n", end="\n" if broken else "")
    return 1 if broken else 0


if __name__ == "__main__":
    run("reference_links.py", main)
