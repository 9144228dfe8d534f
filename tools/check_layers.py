#!/usr/bin/env python3
"""The units' link graph, from the built objects, against the layer picture.

Reads every object of the library with nm: a unit depends on another when it
refers to a name the other defines. Fails when the graph has a cycle, or when
a unit depends on one drawn in a higher layer of the picture in
docs/DESIGN.md (the code block under "Layers and units": one layer per group
of lines, each starting with the layer's name; units are the words that name
a source file, `tmr_*` standing for every unit that starts so).

With --lib LIB --exports exports.tsv it also fails on every PLT entry of the
shared library for one of the library's own exported names: the library's
code calls hidden internal functions, so its calls bind inside it.

usage: check_layers.py [-v] [--nm NM] [--objdump OBJDUMP] [--lib LIB --exports TSV]
                       DESIGN.md OBJECT...   (-v prints the graph)
"""
import fnmatch
import os
import re
import subprocess
import sys


def unit_of(path):
    name = os.path.basename(path)
    return name.split(".")[0]


NM = "nm"
OBJDUMP = "objdump"


def symbols(obj):
    out = subprocess.run([NM, "-C", "--defined-only", obj], capture_output=True, text=True, check=True).stdout
    defined = {line.split(" ", 2)[2] for line in out.splitlines() if re.match(r"^\S+ [TDBRVWu] ", line)}
    out = subprocess.run([NM, "-C", "--undefined-only", obj], capture_output=True, text=True, check=True).stdout
    used = {line.split()[-1] if " U " not in line else line.split(" U ", 1)[1].strip() for line in out.splitlines()}
    return defined, used


def layers(design, units):
    """Layer index per unit, 0 the lowest, from the picture."""
    text = open(design, encoding="utf-8").read()
    block = re.search(r"## Layers and units\s*```(.*?)```", text, re.S)
    if not block:
        sys.exit("check_layers: no layer picture in " + design)
    groups = []
    for line in block.group(1).splitlines():
        if not line.strip() or line.strip().startswith(("public", "─")):
            continue
        words = re.findall(r"[A-Za-z_][A-Za-z0-9_*]*", line)
        if re.match(r"^ \S", line):  # a layer's first line; its further lines are indented deeper
            groups.append(set())
        if groups:
            groups[-1].update(words)
    order = {}
    for rank, words in enumerate(reversed(groups)):
        for unit in units:
            if any(fnmatch.fnmatchcase(unit, w) for w in words):
                order.setdefault(unit, rank)
    missing = sorted(set(units) - set(order))
    if missing:
        sys.exit("check_layers: units not drawn in the layer picture: " + ", ".join(missing))
    return order


def cycles(graph):
    found, state, stack = [], {}, []

    def visit(u):
        state[u] = 1
        stack.append(u)
        for v in sorted(graph[u]):
            if state.get(v) == 1:
                found.append(stack[stack.index(v):] + [v])
            elif v not in state:
                visit(v)
        stack.pop()
        state[u] = 2

    for u in sorted(graph):
        if u not in state:
            visit(u)
    return found


def plt_faults(lib, exports, uses, defined_by):
    """PLT entries for exported names, each blamed on the units that call it."""
    names = {row.split("\t")[1] for row in open(exports, encoding="utf-8") if row[:1].isdigit()}
    out = subprocess.run([OBJDUMP, "-d", lib], capture_output=True, text=True, check=True).stdout
    own = sorted(set(re.findall(r"<([^<>@]+)@plt>:", out)) & names)
    faults = []
    for name in own:
        # Called from the units that refer to it, or else from its own unit.
        callers = sorted({u for u, used in uses.items() if name in used} or {defined_by.get(name, "?")})
        faults.append(f"PLT entry for {name}, called by {', '.join(callers)}")
    print(f"{len(own)} PLT entries for the library's own names")
    return faults


def main():
    global NM
    global OBJDUMP
    args, verbose, lib, exports = [], False, None, None
    it = iter(sys.argv[1:])
    for a in it:
        if a == "-v":
            verbose = True
        elif a == "--nm":
            NM = next(it)
        elif a == "--objdump":
            OBJDUMP = next(it)
        elif a == "--lib":
            lib = next(it)
        elif a == "--exports":
            exports = next(it)
        else:
            args.append(a)
    design, objects = args[0], args[1:]
    defined_by, uses = {}, {}
    for obj in objects:
        unit = unit_of(obj)
        defined, used = symbols(obj)
        for name in defined:
            defined_by.setdefault(name, unit)
        uses[unit] = used
    graph = {u: {defined_by[n] for n in used if n in defined_by and defined_by[n] != u} for u, used in uses.items()}
    order = layers(design, list(graph))
    if verbose:
        for u in sorted(graph, key=lambda u: (-order[u], u)):
            print(f"{order[u]} {u} -> {', '.join(sorted(graph[u])) or '-'}")
    faults = [" -> ".join(c) for c in cycles(graph)]
    faults = ["cycle: " + c for c in faults]
    faults += [f"upward: {u} ({order[u]}) -> {v} ({order[v]})" for u in sorted(graph) for v in sorted(graph[u])
               if order[v] > order[u]]
    if lib and exports:
        faults += plt_faults(lib, exports, uses, defined_by)
    for f in faults:
        print(f)
    print(f"{len(graph)} units, {sum(len(v) for v in graph.values())} edges, {len(faults)} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
