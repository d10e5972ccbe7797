#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes what the fuzz targets start from.

make_seeds.py FOLDER                    database files for fuzz_files, and the inputs of the *.seeds files beside it
make_seeds.py --pack FOLDER NAME.seeds  packs a folder of inputs, such as libFuzzer's -merge=1 makes, one a line

Pages of 512 bytes keep them small. The bytes behind a file are those that the target reads from the end of its
input: the kind of store, a number for the arguments, what the input is and, for a pair of files, where it is split.
"""
import base64
import os
import sqlite3
import struct
import sys
import tempfile

if sys.argv[1] == "--pack":
    inputs = []
    for entry in os.scandir(sys.argv[2]):
        with open(entry, "rb") as file:
            inputs.append(file.read())
    with open(sys.argv[3], "w", encoding="ascii") as file:
        file.writelines(base64.b64encode(each).decode() + "\n" for each in sorted(inputs))
    sys.exit()

for target in ("fuzz_operations", "fuzz_files"):
    os.makedirs(os.path.join(sys.argv[1], target), exist_ok=True)
    with open(os.path.join(os.path.dirname(__file__), target + ".seeds"), encoding="ascii") as file:
        for number, line in enumerate(file):
            with open(os.path.join(sys.argv[1], target, f"packed-{number}"), "wb") as seed_file:
                seed_file.write(base64.b64decode(line))
folder = os.path.join(sys.argv[1], "fuzz_files")

ID = "ID INTEGER PRIMARY KEY AUTOINCREMENT"
TABLES = [
    f"create table T1({ID},DATETIME dateTime,Value text)",
    f"create table AlarmData({ID},LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,CurrentValue text,"
    "LimitValue text,AlarmDescription text,EndDate text,EndTime text)",
    f"create table OperatorLog({ID},DATETIME dateTime NOT NULL,userName text,logName text,message text)",
]
CONFIG = f"create table tb_config({ID},COLLECTOR text,NAME text)"
ROWS = [
    ("insert into T1 values(NULL,?,?)", ("2024-05-06 07:08:09", "87.5 °C")),
    ("insert into AlarmData values(NULL,?,?,?,?,?,?,?,?,?)",
     (2, "2024-05-06 07:08:09", "Pump 1", "High", "87.5", "80.25", "Level above limit", "", "")),
    ("insert into OperatorLog values(NULL,?,?,?,?)", ("2024-05-06 07:08:09.123", "admin", "Login", "it's in")),
]


def made(kind, rows, *, encoding="UTF-8", wal=False, open_journal=False):
    """The bytes of a store's file, and of the journal beside it while its last batch is written."""
    with tempfile.TemporaryDirectory() as place:
        path = os.path.join(place, "s.db")
        connection = sqlite3.connect(path, isolation_level=None)
        connection.execute("pragma page_size=512")
        connection.execute(f"pragma encoding='{encoding}'")
        if wal:
            connection.execute("pragma journal_mode=wal")
        connection.execute("pragma cache_size=1")
        connection.execute(TABLES[kind])
        connection.execute(CONFIG)
        connection.execute("insert into tb_config values(NULL,'T1','Boiler 1')")
        sql, cells = ROWS[kind]
        for _ in range(rows):
            connection.execute(sql, cells)
        if open_journal:
            connection.execute("begin")
            for _ in range(30):
                connection.execute(sql, cells)
        beside = b""
        for suffix in ("-wal", "-journal"):
            if os.path.exists(path + suffix):
                with open(path + suffix, "rb") as file:
                    beside = file.read()
        with open(path, "rb") as file:
            content = file.read()
        connection.close()
        return content, beside


def seed(name, kind, content, beside=None):
    """The target takes numbers from the end: kind, arguments, shape, then the size of the second file and its sort."""
    tail = bytes([3 if beside is None else 1, 7, kind])
    if beside is not None:
        size, is_wal = len(beside[0]), beside[1]
        tail = bytes([1 if is_wal else 0]) + struct.pack("<H", size) + tail
        content += beside[0]
    with open(os.path.join(folder, name), "wb") as file:
        file.write(content + tail)


for kind, name in enumerate(("history", "alarm", "log")):
    seed(name, kind, made(kind, 3)[0])
    seed(name + "-empty", kind, made(kind, 0)[0])
    seed(name + "-many", kind, made(kind, 40)[0])
    seed(name + "-utf16", kind, made(kind, 3, encoding="UTF-16le")[0])
    content, journal = made(kind, 3, open_journal=True)
    seed(name + "-journal", kind, content, (journal, False))
    content, wal = made(kind, 3, wal=True)
    seed(name + "-wal", kind, content, (wal, True))
