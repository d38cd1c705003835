#!/usr/bin/env python3
"""Checks that no file of the module includes a folder above its own, and that no two units (a
header and its source) include each other, directly or around a longer circle.

The build already refuses an upward include in a source file, since each folder compiles against a
view of the tree that holds only the folders below it; a header is compiled only where it is
included, so this reads every file's includes and checks the headers as well."""
import pathlib
import re
import sys

LAYERS = sys.argv[2].split(";")
root = pathlib.Path(sys.argv[1])
include = re.compile(r'^\s*#\s*include\s+"(([a-z]+)/[A-Za-z0-9_]+)\.h"', re.M)
wrong = []
uses = {}  # unit ("support/FileIo") -> the units it includes
for level, folder in enumerate(LAYERS):
    for path in sorted((root / folder).glob("*.[ch]*")):
        unit = f"{folder}/{path.stem}"
        for target, target_folder in include.findall(path.read_text(errors="replace")):
            if target_folder in LAYERS and LAYERS.index(target_folder) > level:
                wrong.append(f"{path.relative_to(root)} includes {target_folder}/, a layer above {folder}/")
            if target != unit:
                uses.setdefault(unit, set()).add(target)


def circle(start):
    """A path of includes from start back to itself, or None."""
    stack, seen = [(start, [start])], set()
    while stack:
        unit, path = stack.pop()
        for nxt in sorted(uses.get(unit, ())):
            if nxt == start:
                return path + [start]
            if nxt not in seen:
                seen.add(nxt)
                stack.append((nxt, path + [nxt]))
    return None


reported = set()
for unit in sorted(uses):
    found = circle(unit)
    if found and frozenset(found) not in reported:
        reported.add(frozenset(found))
        wrong.append("include circle: " + " -> ".join(found))
print("\n".join(wrong) or f"layers in order: {' < '.join(LAYERS)}")
sys.exit(1 if wrong else 0)
