"""Makes the wheel, by hand: what is in it is a function of this folder and the shared library alone.

Called by scripts/make_wheel, and by pip and `python3 -m build` by way of pyproject.toml. With a
library the wheel is one of this platform, else one for any, whose users have the library installed.
"linux_x86_64" and not a manylinux tag: libcurl, libidn2, OpenSSL and zlib come from the user's system.
"""
import base64
import hashlib
import os
import pathlib
import re
import stat
import sysconfig
import zipfile

try:
    import tomllib
except ModuleNotFoundError:  # Before Python 3.11.
    import tomli as tomllib

HERE = pathlib.Path(__file__).resolve().parent
ABI = HERE.parent / "quenor_base/platform/base/abi.h"
PACKAGE = HERE / "quenor"
LIBRARY = "libquenor.so.0"


def version():
    return ".".join(re.findall(r"\d+", re.search(r"^#define QUENOR_ABI v(.*)$", ABI.read_text(), re.M)[1]))


def metadata(project):
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {version()}",
             f"Summary: {project['description']}", f"Requires-Python: {project['requires-python']}",
             *(f"Classifier: {each}" for each in project["classifiers"])]
    return "\n".join(lines) + "\n"


def contents(library, tag):
    """The files of the wheel, by their names, but for the last one, RECORD."""
    project = tomllib.loads((HERE / "pyproject.toml").read_text())["project"]
    info = f"quenor-{version()}.dist-info/"
    files = {f"quenor/{path.name}": path.read_bytes()
             for path in [*PACKAGE.glob("*.py"), PACKAGE / "py.typed"]}
    if library:
        files["quenor/" + LIBRARY] = pathlib.Path(library).read_bytes()
    files[info + "METADATA"] = metadata(project).encode()
    files[info + "WHEEL"] = ("Wheel-Version: 1.0\nGenerator: quenor\n"
                             f"Root-Is-Purelib: {str(not library).lower()}\nTag: {tag}\n").encode()
    return files, info


def record(files, info):
    def digest(content):
        return base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode()
    lines = [f"{name},sha256={digest(content)},{len(content)}" for name, content in files.items()]
    return "\n".join([*lines, f"{info}RECORD,,", ""]).encode()


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    """Answers the wheel's name. `library` among the settings, or $QUENOR_LIBRARY, is what it carries."""
    library = (config_settings or {}).get("library") or os.environ.get("QUENOR_LIBRARY")
    platform = re.sub(r"[-.]", "_", sysconfig.get_platform()) if library else "any"
    tag = f"py3-none-{platform}"
    files, info = contents(library, tag)
    files = dict(sorted(files.items()))
    files[info + "RECORD"] = record(files, info)
    name = f"quenor-{version()}-{tag}.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / name, "w", zipfile.ZIP_DEFLATED) as wheel:
        for path, content in files.items():
            entry = zipfile.ZipInfo(path)  # Of 1980, whenever that is built.
            entry.compress_type = zipfile.ZIP_DEFLATED
            entry.external_attr = (stat.S_IFREG | 0o644) << 16
            wheel.writestr(entry, content, compresslevel=9)
    return name


def build_sdist(sdist_directory, config_settings=None):
    raise NotImplementedError("the source of quenor is its whole tree; build a wheel in it")
