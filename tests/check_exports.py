#!/usr/bin/env python3
"""The shared library's dynamic symbol table, the names the headers declare QOSA_API and the list of exported names
hold the same names, each exported as its listed kind (F function, V variable).
Usage: check_exports.py NM LIB HEADER_DIR NAMES_TSV"""
import glob
import re
import subprocess
import sys

nm, lib, headers, names = sys.argv[1:]
symbols = subprocess.run([nm, "-D", "--defined-only", "--format=posix", lib], capture_output=True, text=True, check=True)
exported = {name.split("@")[0]: "F" if kind in "TtWwi" else "V"  # but kind A, the version node
            for name, kind, *_ in (line.split() for line in symbols.stdout.splitlines()) if kind != "A"}
declared = set()
for header in glob.glob(f"{headers}/*.h"):
    for line in open(header):
        if "QOSA_API " in line and not line.startswith("#define"):
            decl = line.split("QOSA_API ", 1)[1]
            found = re.search(r"(\w+)\s*(\[[^]]*\])*\s*;" if decl.startswith("extern ") else r"(\w+)\s*\(", decl)
            if not found:
                sys.exit(f"cannot read the declared name in {header}: {line}")
            declared.add(found.group(1))
listed = dict(line.split("\t")[1:3] for line in open(names).read().splitlines() if line[:1].isdigit())

errors = [f"exported but not declared in a header: {n}" for n in exported.keys() - declared]
errors += [f"exported but not an interface name: {n}" for n in exported.keys() - listed.keys()]
errors += [f"declared but not exported: {n}" for n in declared - exported.keys()]
errors += [f"listed but not exported: {n}" for n in listed.keys() - exported.keys()]
errors += [f"{n} is exported as {k}, listed as {listed[n]}" for n, k in exported.items() if listed.get(n, k) != k]
print(f"{len(exported)} names exported")
sys.exit("\n".join(sorted(errors)) or None)
