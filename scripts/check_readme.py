#!/usr/bin/env python3
"""Fails unless README.md shows the files of examples/embed word for word."""
import pathlib, sys
readme = pathlib.Path("README.md").read_text()
bad = [f for f in sorted(pathlib.Path("examples/embed").iterdir()) if f.read_text().strip() not in readme]
for f in bad: print(f"README.md does not show {f} as it is")
sys.exit(bool(bad))
