#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Changes the library in one place at a time and sees whether the tests notice.

Each mutant is src/ with one branch turned round, one text changed or one call taken away. It is built beside the
build with the tests (preset qt6, built before) and loaded by the same test programs in its place. A mutant that no program
notices is printed with its line; either a test is missing or nobody can tell the difference.
"""
import argparse
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HANGS_AFTER = 180  # seconds for one program

BRANCHES = [
    (r"\bif \((?!!\w+\)|!?defined)(.+)\)( \{)?$", r"if (!(\1))\2"),
    (r"\bif \(!(\w+)\)$", r"if (\1)"),
    (r" == ", " != "),
    (r" != ", " == "),
    (r" < ", " <= "),
    (r" <= ", " < "),
    (r" > ", " >= "),
    (r" >= ", " > "),
    (r" && ", " || "),
    (r" \|\| ", " && "),
    (r"\breturn true;", "return false;"),
    (r"\breturn false;", "return true;"),
    (r"\breturn 0;", "return 1;"),
    (r"\breturn !", "return "),
]
TEXT = re.compile(r'"((?:[^"\\]|\\.)*)"')
CALL = re.compile(r"^\s+(?!return\b|delete\b|throw\b)[A-Za-z_][\w:.\->]*(?: \w+)?\([^;]*\)(?:\.\w+\([^;]*\))*;$")


def mutants():
    """All of them: (file, line number, what was done, the line as it is then; of a call, as it was)."""
    for path in sorted((ROOT / "src").rglob("*.cpp")):
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            code = re.sub(r"\s*//.*$", "", line)
            if not code.strip() or code.lstrip().startswith("#"):
                continue
            for pattern, replacement in BRANCHES:
                for match in re.finditer(pattern, code):
                    if code[: match.start()].count('"') % 2 == 0:  # not inside a text
                        yield path, number, "branch", code[: match.start()] + match.expand(replacement) + code[match.end():]
            for match in TEXT.finditer(code):
                if len(match.group(1)) < 2:
                    continue
                yield path, number, "text", code[: match.end() - 2] + code[match.end() - 1:]
                yield path, number, "text", code[: match.start() + 1] + code[match.start() + 2:]
            if CALL.match(code) and code.count("(") == code.count(")"):
                yield path, number, "without", code


class Laboratory:
    """A copy of src/ with the commands that build it as the preset does, and the test programs."""

    def __init__(self, build, folder):
        self.build = build
        self.folder = folder
        shutil.copytree(ROOT / "src", folder / "src")
        database = subprocess.run(["ninja", "-t", "compdb"], cwd=build, capture_output=True, text=True, check=True).stdout
        self.compile = {}
        for entry in json.loads(database):
            source = (build / entry["file"]).resolve()
            if source.is_relative_to(ROOT / "src") and source.suffix == ".cpp" and "CMakeFiles/device_database.dir" in entry["command"]:
                self.compile[source.relative_to(ROOT / "src")] = re.sub(r"-O\d", "-O0", entry["command"])
        # The programs in the order in which they tend to notice; the last ones take longest.
        names = [path.name for path in sorted((build / "tests").glob("*_test"))]
        late = ["model_test", "concurrency_test", "locking_test", "zones_test", "differential_test", "kill_test"]
        left_out = ["soak_test", "device_tools_test", "device_monitor_test"]
        ordered = [name for name in names if name not in late + left_out] + [name for name in late if name in names]
        self.programs = [(build / "tests" / name, "") for name in ordered]
        self.programs += [(build / "tests" / name, zone) for name in ("zones_test", "differential_test")
                          for zone in ("Europe/Berlin", "America/New_York")]
        self.programs += [(path, "") for path in sorted((build / "tests/faults").glob("*_test"))]
        for name in self.compile:
            if self.compiled(name, folder / "src" / name):
                raise SystemExit(f"mutants: {name} does not compile unchanged")

    def object(self, name):
        return self.folder / f"{name.name}.o"

    def compiled(self, name, source):
        """The compiler's complaint, or nothing."""
        command = self.compile[name]
        output = self.object(name)
        command = re.sub(r" -o \S+", f" -o {output}", command)
        command = re.sub(r" -M[DTF]+(?: \S+\.o(?:\.d)?)?", "", command)
        command = re.sub(r" -c \S+", f" -c {source}", command).replace(" -Werror", "")
        command = re.sub(r"-I\S*/src(?= )", f"-I{self.folder / 'src'}", command)
        return subprocess.run(command, shell=True, cwd=self.build, capture_output=True, text=True, check=False).returncode

    def linked(self):
        library = self.folder / "libdevice_database.so"
        tools = next((self.build / "device_tools").glob("libdevice_tools.so"))
        qt = subprocess.run(["ldd", self.build / "src/libdevice_database.so"], capture_output=True, text=True,
                            check=True).stdout
        libraries = re.findall(r"=> (\S*lib(?:Qt\dCore|sqlite3)\.so\S*)", qt)
        subprocess.run(["g++", "-shared", "-o", library, *(self.object(name) for name in self.compile),
                        f"-Wl,--version-script={ROOT / 'cmake/exported_names.map'}", tools, f"-Wl,-rpath,{tools.parent}",
                        *libraries], check=True)
        return library

    def notices(self, library, changed=""):
        """The program that notices the library, or nothing. Those named as the changed module come first."""
        environment = {name: value for name, value in os.environ.items() if not name.startswith("QT_")}
        environment.update(DEVICE_DATABASE_LIBRARY=str(library), TZ="UTC")
        for program, zone in sorted(self.programs, key=lambda each: each[0].name.split("_")[0] != changed.split("_")[0]):
            if zone:
                environment["DEVICE_DATABASE_TEST_ZONE"] = zone
            else:
                environment.pop("DEVICE_DATABASE_TEST_ZONE", None)
            arguments = [] if program.name == "model_test" else ["--gtest_fail_fast"]
            try:
                result = subprocess.run([program, *arguments], env=environment, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, timeout=HANGS_AFTER, check=False)
            except subprocess.TimeoutExpired:
                return f"{program.name} hangs"
            if result.returncode != 0:
                return program.name
        return None


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--count", type=int, default=150, help="how many, chosen at random among all (0: all)")
    parser.add_argument("--seed", type=int, default=1, help="of the choice")
    parser.add_argument("--build", type=Path, default=ROOT / "build/qt6", help="the build with the tests")
    parser.add_argument("--list", action="store_true", help="print them, build none")
    arguments = parser.parse_args()

    chosen = list(mutants())
    total = len(chosen)
    if arguments.count and arguments.count < total:
        chosen = sorted(random.Random(arguments.seed).sample(chosen, arguments.count), key=lambda mutant: mutant[:2])
    if arguments.list:
        for path, number, kind, line in chosen:
            print(f"{path.relative_to(ROOT)}:{number}: {kind}: {line.strip()}")
        return
    started = time.monotonic()
    noticed = broken = 0
    unnoticed = []
    with tempfile.TemporaryDirectory() as name:
        laboratory = Laboratory(arguments.build.resolve(), Path(name))
        if (complaint := laboratory.notices(laboratory.linked())) is not None:
            raise SystemExit(f"mutants: {complaint} fails with the unchanged library")
        for at, (path, number, kind, line) in enumerate(chosen, 1):
            module = path.relative_to(ROOT / "src")
            copy = Path(name) / "src" / module
            original = copy.read_text(encoding="utf-8")
            lines = original.splitlines()
            lines[number - 1] = ";" if kind == "without" else line
            copy.write_text("\n".join(lines) + "\n", encoding="utf-8")
            where = f"{module}:{number}: {kind}: {line.strip()}"
            built = laboratory.object(module)
            unchanged = built.read_bytes()
            if laboratory.compiled(module, copy):
                broken += 1
                by = "the compiler"
            else:
                by = laboratory.notices(laboratory.linked(), path.name)
                if by:
                    noticed += 1
                else:
                    unnoticed.append(where)
            print(f"{at}/{len(chosen)} {int(time.monotonic() - started)} s  {by or 'NOT NOTICED'}  {where}", flush=True)
            copy.write_text(original, encoding="utf-8")
            built.write_bytes(unchanged)
    tested = noticed + len(unnoticed)
    print(f"\n{len(chosen)} of {total} mutants (seed {arguments.seed}): {broken} do not compile; of the other {tested}, "
          f"{noticed} noticed ({100 * noticed / max(1, tested):.1f} %), {len(unnoticed)} not:")
    for where in unnoticed:
        print(f"  {where}")
    sys.exit(1 if noticed < 0.95 * tested else 0)


if __name__ == "__main__":
    main()
