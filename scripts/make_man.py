#!/usr/bin/env python3
"""make_man.py: the tools' man pages, from what their --help says.

usage: scripts/make_man.py BIN [--check]    (BIN: the folder of the programs)
Writes man/*.1; with --check it writes nothing and fails where a page would change.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
DATE = "November 22, 2026"  # Of the pages' form; what stands in them is the program's.
COLUMN = 30  # Where --help begins a description.
PAGES = {
    "quenor-report": ("deliver reports to a collection server", ["send", "cache", "cache list", "cache dump",
                      "cache verify", "cache purge", "doctor"], """\
.Sh ENVIRONMENT
.Bl -tag -width Ds
.It Ev QUENOR_REPORT_PROXY_PASSWORD
The password of
.Fl Fl proxy
or
.Fl Fl socks5 .
.It Ev XDG_STATE_HOME
The folder
.Pa quenor
in it holds the cache files; it is
.Pa ~/.local/state
by default.
.El
.Sh SEE ALSO
.Xr quenor-collector 1
"""),
    "quenor-collector": ("collection server for development, tests and demonstrations", ["provision", "export", "control",
                         "control show", "control set", "control policy", "page"], """\
.Sh SEE ALSO
.Xr quenor-report 1
"""),
    "quenor-fleet": ("fleets of report channels in virtual time", ["run", "compare", "check"], """\
.Sh SEE ALSO
.Xr quenor-collector 1
"""),
}


def help_of(program, command):
    words = [str(program), *command.split(), "--help"]
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout.splitlines()


def text(line):
    """A line of running text, with the program's hyphens as they are typed."""
    line = re.sub(r"(?<=[a-z]\.) (?=[A-Z])", "\n", line.strip().replace("\\", "\\e"))
    return re.sub(r"(?<![\w-])-+(?=[\w ,.;]|$)", lambda hyphens: r"\-" * len(hyphens[0]), re.sub(r"^(?=[.'])", r"\\&", line))


def listed(lines):
    """[head, description] of each option, positional or command."""
    entries = []
    for line in lines:
        if line.startswith("  ") and line[2] != " ":
            entries.append([line[2:], ""])
            if line[COLUMN - 1:COLUMN] == " " and line[COLUMN:COLUMN + 1].strip():
                entries[-1] = [line[2:COLUMN].rstrip(), line[COLUMN:]]
        else:
            entries[-1][1] += " " + line.strip()
    return entries


def head(words):
    names, _, rest = words.partition(" ")
    if not names.startswith("-"):
        return f".It Ar {names}" + (f" No \"{rest}\"" if rest else "")
    flags = [f"Fl {name[1:]}" if name[1] != "-" else f"Fl Fl {name[2:]}" for name in names.split(",")]
    return ".It " + " , ".join(flags) + (f" Ar \"{rest}\"" if rest else "")


def sections(lines):
    """[title, lines] of each: what comes before a title has none."""
    found = [["", []]]
    for line in lines:
        title = re.match(r"(Usage|Options|Positionals|Subcommands|Examples|Exit codes|A throw-away certificate): ?(.*)", line)
        if title:
            found.append([title[1], [title[2]] if title[2] else []])
        elif not line:
            found.append(["", []])
        elif " Exit codes: " in line:  # Behind a sentence.
            before, after = line.split(" Exit codes: ")
            found[-1][1].append(before)
            found.append(["Exit codes", [after]])
        else:
            found[-1][1].append(line)
    return [one for one in found if one[1]]


def body(lines):
    """mdoc of one command's help, its usage left out."""
    out = []
    for title, content in sections(lines):
        if title in ("Options", "Positionals", "Subcommands"):
            out += [".Bl -tag -width Ds"]
            for words, description in listed(content):
                out += [head(words), text(description)]
            out += [".El"]
        elif title in ("Examples", "A throw-away certificate"):
            out += [".Pp", title + ":", ".Bd -literal", *(re.sub(r"\\(?!-)", r"\\e", line) for line in content), ".Ed"]
        elif title == "Exit codes":
            out += [".Pp", "Exit codes:", *map(text, content)]
        elif title != "Usage":
            out += [".Pp", *map(text, content)]
    return [line for at, line in enumerate(out) if at or line != ".Pp"]


def page(folder, program):
    what, commands, end = PAGES[program]
    helps = {command: help_of(folder / program, command) for command in ["", *commands]}
    out = [".\\\" Made by scripts/make_man.py from what --help says.", f".Dd {DATE}",
           f".Dt {program.upper()} 1", ".Os quenor", ".Sh NAME", f".Nm {program}", f".Nd {what}", ".Sh SYNOPSIS"]
    for command, lines in helps.items():
        usage = next(line for line in lines if line.startswith("Usage: "))
        does_nothing = "SUBCOMMAND" in usage if command else " SUBCOMMAND" in usage  # Without one.
        out += [] if does_nothing else [".Nm", f".Ar \"{usage.split(' ', 2)[2]}\""]
    out += [".Sh DESCRIPTION", *body(helps[""])]
    shared = {}  # What several commands' helps end with stands once.
    for command in commands:
        lines = helps[command]
        examples = lines.index("Examples:")
        tail = "\n".join(lines[examples:])
        out += [f".Ss {program} {command}", *body(lines if tail not in shared else lines[:examples])]
        shared[tail] = command
    return "\n".join(out) + "\n" + end


def main(arguments):
    folder, changed = pathlib.Path(arguments[0]).resolve(), False
    for program in PAGES:
        file, made = ROOT / "man" / f"{program}.1", page(folder, program)
        if file.exists() and file.read_text() == made:
            continue
        changed = True
        if "--check" not in arguments:
            file.write_text(made)
        else:
            print(f"{file.relative_to(ROOT)} does not say what {program} --help says; run scripts/make_man.py {arguments[0]}")
    return 1 if changed and "--check" in arguments else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
