#!/usr/bin/env python3
"""compile_commands.py TREE [OPTION...]: runs every compile command of a build tree, with these options
added, as many at a time as there are processors. Exit code: 0 all succeeded, 1 not."""
import concurrent.futures
import json
import os
import pathlib
import shlex
import subprocess
import sys


def run(command, folder):
    return subprocess.run(shlex.split(command) + sys.argv[2:], cwd=folder).returncode == 0


commands = json.loads((pathlib.Path(sys.argv[1]) / "compile_commands.json").read_text())
with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
    succeeded = list(pool.map(lambda one: run(one["command"], one["directory"]), commands))
sys.exit(0 if succeeded and all(succeeded) else 1)
