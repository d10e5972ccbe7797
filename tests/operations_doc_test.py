#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Holds docs/operations.md to the source: declarations, statements and messages, in both directions.

usage: operations_doc_test.py SOURCE_ROOT
"""
import re
import sys
from pathlib import Path

STATEMENT = re.compile(r"(select|insert into|delete from|create table|update|begin|commit|PRAGMA) |VACUUM$")


def without_comments(code):
    return re.sub(r"//[^\n]*", "", code)


def literals(code):
    code = re.sub(r"^\s*#.*$|extern \"C\"", "", without_comments(code), flags=re.M)
    return [text.removesuffix(r"\n") for text in re.findall(r'"((?:[^"\\]|\\.)*)"', code) if text]


def declarations(header, pattern):
    return [" ".join(found.split()) for found in re.findall(pattern, without_comments(header))]


def blocks(page, language):
    """The fenced blocks of one language, each as its lines without the indent of its fence."""
    found = re.findall(rf"^( *)```{language}\n(.*?)^ *```$", page, flags=re.M | re.S)
    return [[line[len(indent):] for line in text.splitlines()] for indent, text in found]


def main(root):
    page = (root / "docs/operations.md").read_text(encoding="utf-8")
    in_source = {text for file in sorted((root / "src").rglob("*.cpp")) for text in literals(file.read_text("utf-8"))}
    entry_points = declarations((root / "src/database.h").read_text("utf-8"), r"Q_DECL_EXPORT ([^;]+);")
    slots = declarations((root / "src/interface_data_base.h").read_text("utf-8"),
                         r"virtual ([^~;{]+?)(?: = 0)?;")
    headings = re.findall(r"^### (\d+) (\w+)$", page, flags=re.M)
    statements = {line for block in blocks(page, "sql") for line in block}
    statements_in_source = {text for text in in_source if STATEMENT.match(text)}

    faults = []

    def same(what, documented, expected):
        if documented != expected:
            faults.append(f"{what}:\n  page:   {documented}\n  source: {expected}")

    same("entry points and slots, in order", [" ".join(block) for block in blocks(page, "cpp")], entry_points + slots)
    same("slot headings", headings,
         [(str(slot), re.search(r"(\w+)\(", text)[1]) for slot, text in enumerate(slots, start=2)])
    faults += [f"not on the page as a statement: |{text}|" for text in sorted(statements_in_source - statements)]
    faults += [f"a statement that the source does not have: |{text}|" for text in sorted(statements - in_source)]
    faults += [f"not on the page: |{text}|" for text in sorted(in_source - statements_in_source) if text not in page]
    if len(slots) != 30 or len(entry_points) != 3 or not statements_in_source:
        faults.append(f"the source was not understood: {len(slots)} slots, {len(entry_points)} entry points, "
                      f"{len(statements_in_source)} statements")
    print("\n".join(faults) or f"{len(entry_points)} entry points, {len(slots)} slots, {len(in_source)} texts: all there")
    return bool(faults)


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
