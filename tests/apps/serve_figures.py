#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""How quickly "device-db serve" answers, for docs/device-db.md: the page and a small answer beside 50 listeners, first
while nothing else is asked and then beside everything that takes long; and when the listeners hear of a row. Checks
nothing.

    serve_figures.py DEVICE_DB [--rows N] [--requests N] [--listeners N]
"""
import argparse
import multiprocessing
import os
import random
import re
import shutil
import socket
import sqlite3
import subprocess
import tempfile
import time

SAMPLES = "create table {0}(ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text);"
ALARMS = ("create table AlarmData(ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject "
          "text,AlarmType text,CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text);")
COUNT = "with recursive n(i) as (select 0 union all select i+1 from n where i<{0}-1) "
BEGIN = 1714953600  # seconds: 2024-05-06


def make(path, tables, rows, alarms=0):
    database = sqlite3.connect(path)
    database.execute("pragma journal_mode=wal")
    for table in tables:
        database.executescript(SAMPLES.format(table) + "begin;insert into " + table + "(DATETIME,Value) " +
                               COUNT.format(rows) + f"select datetime({BEGIN}+i,'unixepoch'),20+i*7919%1000/10.0 from "
                               "n;commit")
        if table == "Sums":
            database.execute("create index \"device index Sums\" on Sums(DATETIME)")
    if alarms:
        database.executescript(ALARMS + "begin;insert into AlarmData select NULL,1+i%3,datetime(u,'unixepoch'),"
                               "'Pump '||i%40,'High',i%100,80,'Level above limit',date(u+300,'unixepoch'),"
                               "time(u+300,'unixepoch') from (" + COUNT.format(alarms) +
                               f"select i,{BEGIN}+i*60 u from n);commit")
    database.close()


class Server:
    def __init__(self, program, files):
        self.process = subprocess.Popen([program, "serve", *files], stdout=subprocess.PIPE, text=True)
        self.port, token = re.search(r":(\d+)/\?token=(\w+)", self.process.stdout.readline()).groups()
        self.head = f" HTTP/1.1\r\nHost: localhost\r\nCookie: device_db_{self.port}={token}\r\n"

    def ask(self, target, close=True):
        client = socket.create_connection(("127.0.0.1", int(self.port)))
        client.sendall((f"GET {target}" + self.head + ("Connection: close\r\n" if close else "") + "\r\n").encode())
        return client

    def answer(self, target):
        """The bytes of an answer, and how many seconds it took with its connection."""
        began, size = time.perf_counter(), 0
        with self.ask(target) as client:
            while part := client.recv(1 << 20):
                size += len(part)
        return size, time.perf_counter() - began

    def cpu(self):
        with open(f"/proc/{self.process.pid}/schedstat", encoding="utf-8") as file:
            return int(file.read().split()[0]) / 1e9  # of the thread that answers


def say(what, seconds):
    seconds = sorted(seconds)
    parts = (f"{name} {1000 * seconds[min(len(seconds) - 1, int(len(seconds) * part))]:.1f}"
             for name, part in (("median", 0.5), ("95 %", 0.95), ("99 %", 0.99), ("longest", 1)))
    print(f"{what}: {', '.join(parts)} ms; {len(seconds)} times, load {os.getloadavg()[0]:.1f}", flush=True)


def measure(server, title, requests):
    begin, cpu = time.monotonic(), server.cpu()
    page, small = [], []
    for _ in range(requests):
        page.append(server.answer("/")[1])
        small.append(server.answer("/api/rows?table=0/Small&order=newest&offset=0&limit=1")[1])
        time.sleep(random.random() * 0.05)
    say(f"{title}, the page", page)
    say(f"{title}, a row", small)
    print(f"  the thread worked for {100 * (server.cpu() - cpu) / (time.monotonic() - begin):.0f} % of the time")


def heard(server, path, listeners, commits):
    """From the end of a commit until each of the listeners has heard of it."""
    database, delays = sqlite3.connect(path), []
    for listener in listeners:
        listener.setblocking(False)
    for _ in range(commits):
        time.sleep(0.3 + random.random())
        for listener in listeners:
            try:
                while listener.recv(1 << 16):
                    pass
            except BlockingIOError:
                pass
        with database:
            database.execute("insert into Small(DATETIME,Value) values('2024-05-07 00:00:00','1')")
        began = time.perf_counter()
        for listener in listeners:
            listener.setblocking(True)
            while b"0/Small" not in listener.recv(1 << 16):
                pass
            delays.append(time.perf_counter() - began)
            listener.setblocking(False)
    say("a row is heard of", delays)


def again(server, target):
    """Asks for ever. What stands in braces is worked out for each question."""
    while True:
        server.answer(re.sub(r"\{(.*?)\}", lambda match: str(eval(match[1])), target))  # pylint: disable=eval-used


def change(history, small, other):
    """Lets passes begin anew and gives another small file, whose structure is checked, in turn and for ever."""
    database = sqlite3.connect(history, timeout=30)
    while True:
        for table in ("T1", "T2", "T3"):
            with database:
                database.execute(f"delete from {table} where ID=(select min(ID) from {table})")
        shutil.copy(other, small + ".new")
        os.rename(small + ".new", small)
        time.sleep(2)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("program")
    parser.add_argument("--rows", type=int, default=1000000)
    parser.add_argument("--requests", type=int, default=500)
    parser.add_argument("--listeners", type=int, default=50)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        history, small, other = (os.path.join(folder, name) for name in ("history.db", "small.db", "other.db"))
        make(history, ("T1", "T2", "T3", "Sums", "List"), options.rows, 100000)
        make(history, ("Small",), 1000)
        make(other, ("T",), 400000)
        subprocess.run([options.program, "trends", "on", history, "Sums", "--levels", "10s,1min,1h"], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.copy(other, small)
        server = Server(options.program, [history, small])
        listeners = [server.ask("/api/changes", close=False) for _ in range(options.listeners)]
        for table in ("Small", "List", "AlarmData"):
            server.answer(f"/api/overview?table=0/{table}")
        measure(server, "idle", options.requests)
        heard(server, history, listeners, 40)
        span = f"from={BEGIN}000&to={BEGIN + options.rows}000&columns={{1000+random.randrange(900)}}"
        questions = ["overview?table=0/T1", "overview?table=0/T2", "overview?table=0/T3",
                     "rows?table=0/List&order=recorded&offset={random.randrange(900000)}&limit=100000",
                     "rows?table=0/List&order=recorded&offset=0&limit=100&containing={random.random()}",
                     "rows?table=0/List&order=newest&offset=0&limit=100&at={1714953600000+random.randrange(900000000)}",
                     f"trend?table=0/Sums&{span}", f"trend?table=0/List&{span}", f"trend?table=0/AlarmData&{span}"]
        others = [multiprocessing.Process(target=again, args=(server, "/api/" + question)) for question in questions]
        others.append(multiprocessing.Process(target=change, args=(history, small, other)))
        for process in others:
            process.start()
        time.sleep(2)
        measure(server, "beside all that takes long", options.requests)
        heard(server, history, listeners, 40)
        for process in others:
            process.terminate()
        server.process.terminate()
        server.process.wait()


if __name__ == "__main__":
    main()
