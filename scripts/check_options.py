#!/usr/bin/env python3
"""Fails when a QUENOR_ build option of CMakeLists.txt is not described in docs/guide/building.md."""
import pathlib, re, sys
text = pathlib.Path("CMakeLists.txt").read_text()
page = pathlib.Path("docs/guide/building.md").read_text()
options = re.findall(r"^(?:option|set)\((QUENOR_[A-Z_]+) .*?(?:ON|OFF|\}|STRING.*)\)?", text, re.M)
options = [o for o in options if re.search(rf"option\({o} |{o} .*CACHE STRING", text)]
missing = [o for o in options if f"`{o}`" not in page]
for o in missing: print(f"docs/guide/building.md does not describe {o}")
sys.exit(bool(missing) or not options)
