#!/usr/bin/env python3
"""The firmware's layers, checked over its include lines.

Each folder of firmware/ is one layer; a file may include from its own folder and from the folders
below it, never from above. The platform API (platform/include) is below every layer; firmware never
includes the simulator (platform/sim). Folders may not include each other in a circle either (the
order rules that out, but the check stands on its own should the order ever be edited).

Exits 0 when the tree keeps its shape, 1 with one line per offending include otherwise.
"""

import argparse
import os
import re
import sys

# Bottom to top; the README's layout section describes the same order.
LAYERS = [
    "ports",  # UART drivers and the console
    "board",  # pins, timebase, watchdog, LEDs and switches, the I2C bus and its chips
    "records",  # the global records, their defaults and checks
    "storage",  # card, FAT, FRAM, flash, settings, error log, calibration and data files
    "instruments",  # the serial instruments on ports 2 to 4
    "measure",  # ADC, pH and temperature, the sample cycle, the schedule and sleep
    "spectrometer",  # the UV spectrometer and nitrate
    "hostlink",  # console command interpreter, float-controller commands, YMODEM
    "menus",  # operator menus, dialogues, board QA, continuous output
    "core",  # start-up, interrupt entry and the main state machine
]

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)
SOURCE_SUFFIXES = (".h", ".hpp", ".c", ".cpp")


def sources(root):
    for folder, _, names in os.walk(root):
        for name in sorted(names):
            if name.endswith(SOURCE_SUFFIXES):
                yield os.path.join(folder, name)


def layer_of(rel_path):
    """The top folder of a path inside firmware/, or None for a file directly in it."""
    parts = rel_path.split(os.sep)
    return parts[0] if len(parts) > 1 else None


def resolve(root, including_file, target):
    """The firmware path (relative to root) an include names, or None when it is not firmware's."""
    for base in (os.path.dirname(including_file), root):
        path = os.path.normpath(os.path.join(base, target))
        if os.path.isfile(path) and os.path.commonpath([path, root]) == root:
            return os.path.relpath(path, root)
    return None


def folder_edges(root):
    """(from folder, to folder, file, include line) for every include between firmware folders."""
    edges = []
    for path in sources(root):
        rel = os.path.relpath(path, root)
        with open(path, encoding="utf-8", errors="replace") as f:
            text = f.read()
        for target in INCLUDE.findall(text):
            resolved = resolve(root, path, target)
            if resolved is None:
                edges.append((layer_of(rel), None, rel, target))
                continue
            edges.append((layer_of(rel), layer_of(resolved), rel, target))
    return edges


def find_cycles(graph):
    """Groups of more than one folder that reach each other along includes (the graph is small)."""
    nodes = set(graph) | {w for targets in graph.values() for w in targets}

    def reachable(start):
        seen, todo = set(), [start]
        while todo:
            for w in graph.get(todo.pop(), ()):
                if w not in seen:
                    seen.add(w)
                    todo.append(w)
        return seen

    reach = {v: reachable(v) for v in nodes}
    groups, placed = [], set()
    for v in sorted(nodes):
        group = sorted({v} | {w for w in reach[v] if v in reach[w]})
        if v not in placed and len(group) > 1:
            groups.append(group)
            placed.update(group)
    return groups


def check(root, layers=LAYERS):
    """The problems found, one text each; empty when the shape holds."""
    rank = {name: i for i, name in enumerate(layers)}
    problems = []
    for path in sources(root):
        rel = os.path.relpath(path, root)
        if layer_of(rel) not in rank:
            problems.append(f"{rel}: the folder '{layer_of(rel)}' is not in the layer list")
    graph = {}
    for src, dst, rel, target in folder_edges(root):
        if src not in rank:
            continue
        if target.startswith("platform/sim") or target.startswith("sim/") or "/sim/" in target:
            problems.append(f'{rel}: includes "{target}": firmware never includes the simulator')
            continue
        if dst is None:
            continue  # the platform API and the C++ library
        if dst not in rank:
            problems.append(f'{rel}: includes "{target}" from \'{dst}\', which is not in the layer list')
            continue
        if dst != src:
            graph.setdefault(src, set()).add(dst)
        if rank[dst] > rank[src]:
            problems.append(f'{rel}: includes "{target}": {src} is below {dst}')
    for group in find_cycles(graph):
        problems.append("folders include each other in a circle: " + " -> ".join(group))
    return problems


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--root", default=os.path.join(here, "..", "firmware"))
    args = parser.parse_args(argv)
    root = os.path.realpath(args.root)
    problems = check(root)
    for p in problems:
        print(p)
    if problems:
        print(f"{len(problems)} include(s) break the layers: " + " < ".join(LAYERS))
        return 1
    print("layers hold: " + " < ".join(LAYERS))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
