#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""No folder includes one above it.

    layers_test.py REPOSITORY

Folders stand below in the order in which they may be built: each may include what comes before it, and itself. Since
every folder has one place in that order, there is no cycle. A folder that is new needs its place here.
"""
import pathlib
import re
import sys

ORDER = """
device_tools
src/private
src
host/device
host
storefile
storefile/salvage
apps/archive
apps/device-db/terminal
apps/device-db/program
apps/device-db/import
apps/device-db/serve
apps/device-db/fleet
apps/device-db/commands
apps/device-db
apps/device-ship
examples/device_monitor
examples/logger
examples/panel
examples/shortest
tests/support
tests/data
tests
tests/apps
tests/faults
tests/fuzz
tests/host
tests/kill
tests/model
tests/package
tests/soak
benchmarks
""".split()

INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^">]+)[">]', re.MULTILINE)


def sources(repository):
    """All C++ files, as paths below the repository; build folders are left out."""
    tops = [top for top in pathlib.Path(repository).iterdir()
            if top.is_dir() and not top.name.startswith((".", "build"))]
    return [pathlib.PurePosixPath(file.relative_to(repository))
            for top in tops for file in sorted(top.rglob("*")) if file.suffix in (".cpp", ".h")]


def candidates(included, files):
    """The files that an include may mean: those whose path ends with it."""
    return [file for file in files if file.parts[-len(included.parts):] == included.parts]


def violations(repository):
    files = sources(repository)
    for file in files:
        folder = str(file.parent)
        if folder not in ORDER:
            yield f"{file}: {folder} has no place in the order"
            continue
        for name in INCLUDE.findall((pathlib.Path(repository) / file).read_text(encoding="utf-8")):
            if ".." in pathlib.PurePosixPath(name).parts:
                yield f"{file}: {name}: name what it means from a folder down"
                continue
            meant = candidates(pathlib.PurePosixPath(name), files)
            beside = [other for other in meant if other.parent == file.parent]
            places = [ORDER.index(str(other.parent)) for other in beside or meant if str(other.parent) in ORDER]
            # A name that stands for several files is the lowest of them: that is the one which is allowed.
            if places and min(places) > ORDER.index(folder):
                yield f"{file}: {name} is of {ORDER[min(places)]}, above {folder}"


def main():
    repository = sys.argv[1]
    missing = [folder for folder in ORDER if not (pathlib.Path(repository) / folder).is_dir()]
    found = [f"{folder}: there is no such folder" for folder in missing] + list(violations(repository))
    for line in found:
        print(line)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
