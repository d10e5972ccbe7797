#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A plant of twenty devices: recorded through the library, shipped while shippers and the server are
killed, every row compared, and asked what a plant engineer would ask. Leaves nothing behind.

    demo.py DEVICE_SHIP DEVICE_DB [--devices N] [--rounds N]
"""
import argparse
import csv
import datetime
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

from cluster import Archive, Cluster, archived, rows_of, skip_without_server

KINDS = {"history": ("Temperature", "samples", "sample", ("time", "value")),
         "alarms": ("AlarmData", "alarms", "alarm",
                    ("level", "start", "object", "type", "value", "limit", "description", "end_date", "end_time")),
         "log": ("OperatorLog", "log", "log", ("time", "user", "log", "message"))}


class Device:
    def __init__(self, number, folder, tool):
        self.number, self.tool = number, tool
        self.paths = {name: os.path.join(folder, f"{number}-{name}.db") for name in KINDS}
        self.csv = os.path.join(folder, f"{number}.csv")
        self.clock = datetime.datetime(2024, 5, 6, 7)
        self.service = None
        for name in KINDS:
            self.record(name, [])

    def record(self, name, rows):
        """By the library: the tool's import opens the file through it."""
        table, kind, _, columns = KINDS[name]
        with open(self.csv, "w", encoding="utf-8", newline="") as file:
            csv.writer(file).writerows([columns, *rows])
        title = ["--name", "Temperature °C"] if kind == "samples" else []
        subprocess.run([self.tool, "import", self.paths[name], table, self.csv, "--create", "--kind", kind, "--lock",
                        *title], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

    def live(self, minutes):
        """Some minutes of a press: a row a second, now and then an alarm and a changed limit."""
        samples, alarms, log = [], [], []
        for _ in range(60 * minutes):
            self.clock += datetime.timedelta(seconds=1)
            samples.append((f"{self.clock:%F %T}", f"{random.gauss(70 + self.number / 4, 5):.2f}"))
        if random.random() < 0.6:
            ended = random.random() < 0.5
            alarms.append((2, f"{self.clock:%F %T}", f"Pump {self.number % 3 + 1}", random.choice(("High", "Low")),
                           "87.5", "80", "Temperature above 80 °C", f"{self.clock:%F}" if ended else "",
                           f"{self.clock:%T}" if ended else ""))
        if random.random() < 0.3:
            log.append((f"{self.clock:%F %T}.000", "operator", "Limits", f"High: 80 -> {random.randint(75, 90)} °C"))
        self.record("history", samples)
        if alarms:
            self.record("alarms", alarms)
        if log:
            self.record("log", log)

    def start(self, program, configuration):
        self.service = subprocess.Popen([program, "run", configuration], stderr=subprocess.DEVNULL)

    def kill(self):
        self.service.kill()
        self.service.wait()


class Store:
    """What Archive.device() wants of a file."""

    def __init__(self, path):
        self.path = path


def table(title, names, rows):
    print(f"\n{title}")
    widths = [max(len(row[i] or "") for row in [names, *rows]) for i in range(len(names))]
    for row in [names, ["─" * width for width in widths], *rows]:
        print("  " + "  ".join((cell or "").ljust(width) for cell, width in zip(row, widths)).rstrip())


def compare(archive, devices):
    compared = 0
    for device in devices:
        for name, (store_table, _, kind, _) in KINDS.items():
            truth = rows_of(device.paths[name], store_table, kind)
            found = archived(archive.cluster, archive.name, device.number, name, store_table, kind)
            if found != {(1, key): cells for key, cells in truth.items()}:
                sys.exit(f"device {device.number}, {name}: the archive differs from the file")
            compared += len(truth)
    return compared


def questions(archive):
    table('Which pumps raised "High", and how often?', ["device", "pump", "alarms", "still active"], archive.sql(
        "select device_name, object, count(*), count(*) filter (where state = 'active') from fleet.alarms "
        "where type = 'High' group by 1, 2 order by 3 desc, 1 limit 8"))
    table("On which machines did a limit change?", ["device", "when", "who", "what"], archive.sql(
        "select device_name, local_time, user_name, message from fleet.logs where log_name = 'Limits' "
        "order by local_time, device limit 8"))
    table("This temperature on all lines", ["device", "series", "rows", "lowest", "mean", "highest"], archive.sql(
        "select device_name, title, count(*), min(num), round(avg(num)::numeric, 2), max(num) from fleet.samples "
        "group by 1, 2 order by 5 desc limit 8"))
    table("Is anything missing?", ["devices", "tables", "rows shipped", "rows behind", "gaps"], archive.sql(
        "select count(distinct device), count(*), sum(shipped), sum(behind), sum(gaps) from fleet.status"))


def run(cluster, given):
    archive = Archive(cluster, given.device_ship, "plant")
    devices = [Device(number, archive.folder, given.device_db) for number in range(1, given.devices + 1)]
    configurations = {device: archive.device(device.number, {name: Store(path) for name, path in device.paths.items()})
                      for device in devices}
    for device in devices:
        device.start(given.device_ship, configurations[device])
    kills = stops = 0
    try:
        for i in range(given.rounds):
            for device in devices:
                device.live(2)
                if random.random() < 0.5:
                    victim = random.choice(devices)
                    victim.kill()
                    victim.start(given.device_ship, configurations[victim])
                    kills += 1
            if i % 2:
                cluster.stop("immediate")
                cluster.start()
                stops += 1
            print(f"round {i + 1} of {given.rounds}: {kills} shippers killed, the server stopped at once {stops} times",
                  flush=True)
    finally:
        for device in devices:
            device.kill()
    for device in devices:
        archive.ship("run", "--once", configurations[device])
    print(f"{compare(archive, devices):,} rows of {len(devices)} devices compared with their files: each is there once")
    questions(archive)


def main():
    options = argparse.ArgumentParser()
    options.add_argument("device_ship")
    options.add_argument("device_db")
    options.add_argument("--devices", type=int, default=20)
    options.add_argument("--rounds", type=int, default=3)
    given = options.parse_args()
    skip_without_server()
    started = time.monotonic()
    folder = tempfile.mkdtemp(prefix="fleet-", dir="/tmp")
    try:
        cluster = Cluster(folder, "shared_buffers=64MB")
        try:
            run(cluster, given)
        finally:
            cluster.stop()
    finally:
        shutil.rmtree(folder)
    print(f"\n{time.monotonic() - started:.0f} s; nothing is left behind")


if __name__ == "__main__":
    main()
