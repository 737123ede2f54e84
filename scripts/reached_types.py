#!/usr/bin/env python3
"""reached_types.py: of what abidw says of a library, the C interface and the types that it takes.

usage: scripts/reached_types.py < WHOLE > REACHED
What a handle stands for is nobody's business: it is left as a declaration.
"""
import sys
import xml.etree.ElementTree as xml

PREFIX = "quenor_"
HANDLES = ("quenor_headers", "quenor_reporter")


def main():
    whole = xml.parse(sys.stdin)
    types = {node.get("id"): node for node in whole.iter() if node.get("id")}
    for node in types.values():
        if node.get("name") in HANDLES and node.tag == "class-decl":
            node[:] = []
            node.attrib.pop("size-in-bits", None)
            node.set("is-declaration-only", "yes")
    for symbols in whole.iter("elf-function-symbols"):
        symbols[:] = [node for node in symbols if node.get("name").startswith(PREFIX)]
    kept = {node for node in whole.iter("function-decl")
            if node.get("elf-symbol-id", "").startswith(PREFIX)}
    todo = list(kept)
    while todo:
        for node in todo.pop().iter():
            for key in ("type-id", "naming-typedef-id"):
                found = types.get(node.get(key))
                if found is not None and found not in kept:
                    kept.add(found)
                    todo.append(found)
    for unit in whole.iter("abi-instr"):
        unit[:] = [node for node in unit if node in kept]
    xml.indent(whole)
    whole.write(sys.stdout, encoding="unicode")
    print()


if __name__ == "__main__":
    main()
