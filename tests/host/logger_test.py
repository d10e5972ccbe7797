# SPDX-License-Identifier: MIT
"""Runs examples/logger twice, ends it by a signal and looks at what it recorded and at its trend page."""
import os
import re
import signal
import sqlite3
import subprocess
import sys
import tempfile

program, library = sys.argv[1:3]


def run(folder):
    """One life of the logger: until it has written latest values and its trend page, then SIGTERM. Its last lines."""
    logger = subprocess.Popen([program, library, folder], stdout=subprocess.PIPE, text=True)
    first = logger.stdout.readline()
    assert "and 49 others" in first, first
    while columns_of_page(folder) == 0:
        assert "and 49 others" in logger.stdout.readline(), "it ended before its trend page"
    logger.send_signal(signal.SIGTERM)
    rest = logger.stdout.read()
    assert logger.wait() == 0, "it lost rows"
    return rest


def columns_of_page(folder):
    """How many columns the trend page has; their heights are as the values, within 4 to 96."""
    if not os.path.exists(f"{folder}/trend.html"):
        return 0
    with open(f"{folder}/trend.html", encoding="utf-8") as page:
        text = page.read()
    assert "Sensor 0, the last hour" in text, text
    columns = re.findall(r"<rect x='(\S+)' y='-(\S+)' width='1' height='(\S+)'/>", text)
    for time, highest, height in columns:
        assert -361 <= float(time) <= 0 and 4 <= float(highest) <= 96 and 0.5 <= float(height) <= 92.5, text
    return len(columns)


def value(folder, name, sql):
    with sqlite3.connect(f"{folder}/{name}.db") as file:
        return file.execute(sql).fetchone()[0]


with tempfile.TemporaryDirectory() as folder:
    rows = 0
    for life in (1, 2):
        last = run(folder)
        stored = {line.split("/")[-1].split(".db")[0]: int(line.split(": ")[1].split()[0])
                  for line in last.splitlines() if "rows stored" in line}
        rows += stored["history"]
        in_file = sum(value(folder, "history", f"select count(*) from Series{i}") for i in range(50))
        assert in_file == rows, (in_file, rows)
        assert value(folder, "log", "select count(*) from OperatorLog") == 2 * life
    assert value(folder, "history", "select count(*) from Series0") == value(
        folder, "history", "select count(*) from Series49")
    standing = value(folder, "alarms", "select count(*) from (select 1 from AlarmData where EndDate='' group by"
                                       " AlarmObject, AlarmType having count(*)>1)")
    assert standing == 0, "a standing alarm was raised again"
