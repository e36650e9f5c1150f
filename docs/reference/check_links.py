"""Tells which links of the reference lead to no page, or to no place in it. Doxygen itself knows
only those that it has made. Argument: the directory of the reference.
"""

import html
import pathlib
import re
import sys
import urllib.parse

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
    root = pathlib.Path(sys.argv[1])
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
    sys.exit(main())
