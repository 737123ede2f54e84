#!/usr/bin/env python3
"""Fails unless each page shows the example's files word for word; the tests build and run them."""
import pathlib, sys
PAGES = {"README.md": ("embed", "c_program", "python_script"), "docs/guide/embedding.md": ("channel", "behind_a_proxy_cxx"),
         "docs/guide/c.md": ("behind_a_proxy_c",), "docs/guide/python.md": ("behind_a_proxy_python",)}
bad = [(page, file) for page, names in PAGES.items() for name in names
       for file in sorted(pathlib.Path("examples", name).iterdir())
       if file.read_text().strip() not in pathlib.Path(page).read_text()]
for page, file in bad: print(f"{page} does not show {file} as it is")
sys.exit(bool(bad))
