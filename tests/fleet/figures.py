#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""What shipping costs, for docs/fleet.md: rates, bytes, memory, delay. Checks nothing but that no row is missing.

    figures.py PROGRAM [rate|beside|delay|events|week]... [--rows N] [--commits N]
"""
import argparse
import os
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from datetime import datetime, timedelta

from cluster import Archive, Cluster, File

FILES = 20


def server_cpu(cluster):
    """Seconds of processor time of the server and all its children, those that have ended included."""
    with open(os.path.join(cluster.data, "postmaster.pid"), encoding="utf-8") as file:
        postmaster = file.readline().strip()
    ticks = 0
    for process in os.listdir("/proc"):
        try:
            with open(f"/proc/{process}/stat", encoding="utf-8") as file:
                fields = file.read().rsplit(")", 1)[1].split()
        except (OSError, IndexError):
            continue
        if process == postmaster:
            ticks += sum(int(cell) for cell in fields[11:15])
        elif fields[1] == postmaster:
            ticks += int(fields[11]) + int(fields[12])
    return ticks / os.sysconf("SC_CLK_TCK")


def files(archive, journal="delete"):
    return {f"f{i}": File(os.path.join(archive.folder, f"f{i}.db"), journal) for i in range(FILES)}


def bytes_a_row(archive, kind, count):
    """Of the table with what belongs to it, and of its key."""
    return [int(cell) / count for cell in archive.sql(
        f"select (select sum(pg_table_size(inhrelid)) from pg_inherits where inhparent = 'fleet.{kind}'::regclass), "
        f"(select sum(pg_relation_size(oid)) from pg_class where relname ~ '^{kind}_[0-9_]*_key$')")[0]]


def alarm(i, start):
    """Nine of ten have ended."""
    ended = ("", "") if i % 10 == 0 else tuple(f"{start + timedelta(minutes=5)}".split())
    return (i % 3 + 1, f"{start}", f"Pump {i % 20}", "High" if i % 4 else "Stuck", "87.5", "80",
            "Level above limit", *ended)


def events(archive, count):
    store = File(os.path.join(archive.folder, "e.db"))
    first = datetime(2024, 5, 6)
    store.table("AlarmData", "alarm")
    store.add("AlarmData", [alarm(i, first + timedelta(minutes=i)) for i in range(count)])
    store.table("OperatorLog", "log")
    store.add("OperatorLog", [(f"{first + timedelta(minutes=i)}.120", "anna", "Set", "Limit of Pump 1 from 80 to 85")
                              for i in range(count)])
    archive.ship("run", "--once", archive.device(1, {"e": store}))
    for kind in ("alarm", "log"):
        table, key = bytes_a_row(archive, kind, count)
        times = int(archive.sql("select sum(pg_relation_size(indexrelid)) from pg_index i join pg_class c on c.oid = "
                                f"indexrelid where c.relname ~ '^{kind}_[0-9_]*_dt_idx$'")[0][0]) / count
        print(f"{count} rows of {kind}: {table:.1f} + {key:.1f} bytes a row with its key, {times:.1f} for its times")


def week(archive, devices, alarms):
    """Alarms of half a year, of which a week is asked for."""
    first = datetime(2024, 1, 1)
    for device in range(1, devices + 1):
        store = File(os.path.join(archive.folder, f"w{device}.db"))
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i + device, first + timedelta(minutes=i * 182 * 1440 // alarms + device))
                                for i in range(alarms)])
        archive.ship("run", "--once", archive.device(device, {"a": store}))
        store.close()
    archive.sql("analyze fleet.alarm; analyze fleet.batch; analyze fleet.source; analyze fleet.device")
    between = "local_time >= '2024-05-06' and local_time < '2024-05-13'"
    for what, statement in (
            ("all of them", f"select * from fleet.alarms where {between} order by local_time"),
            ("High by device and object", "select device_name, object, count(*) from fleet.alarms where type = 'High' "
                                          f"and {between} group by 1, 2 order by 3 desc")):
        plans = [archive.sql("explain (analyze, timing off) " + statement) for _ in range(11)]
        rows = plans[0][0][0].split("actual rows=")[1].split()[0]
        milliseconds = statistics.median(float(plan[-1][0].split()[2]) for plan in plans)
        print(f"a week's alarms of {devices} devices, of {devices * alarms}, {what}: {rows} rows, median of "
              f"{len(plans)}: {milliseconds:.1f} ms")


def rate(archive, rows):
    stores = files(archive)
    for store in stores.values():
        store.table("T", "sample")
        store.run("begin")
        store.connection.executemany("insert into T values(NULL,?,?)",
                                     ((f"2024-05-{6 + i // 86400:02} {i // 3600 % 24:02}:{i // 60 % 60:02}:"
                                       f"{i % 60:02}", "21.53")
                                      for i in range(rows // FILES)))
        store.run("commit")
    configuration = archive.device(1, stores)
    archive.sql("checkpoint")
    before, started, own = server_cpu(archive.cluster), time.monotonic(), resource.getrusage(resource.RUSAGE_CHILDREN)
    shipper = subprocess.Popen([archive.program, "run", "--once", configuration])
    _, _, used = os.wait4(shipper.pid, 0)
    seconds = time.monotonic() - started
    server = server_cpu(archive.cluster) - before
    count = int(archive.sql("select count(*) from fleet.sample")[0][0])
    assert count == rows // FILES * FILES, count
    table, key = bytes_a_row(archive, "sample", count)
    batches = int(archive.sql("select pg_total_relation_size('fleet.batch')")[0][0]) / count
    print(f"{count} samples of {FILES} files: {count / seconds:,.0f} a second; server {server / count * 1e6:.2f} s of "
          f"processor per million, shipper {(used.ru_utime + used.ru_stime) / count * 1e6:.2f} s; "
          f"{table:.1f} + {key:.1f} bytes a row with its key, {batches:.2f} for the batches; "
          f"shipper's memory {used.ru_maxrss / 1024:.0f} MB")
    started = time.monotonic()
    archive.sql("analyze fleet.sample; analyze fleet.batch")
    plan = archive.sql("explain (analyze, costs off) select * from fleet.series(1, 1::smallint, '2024-05-06 03:00:00', "
                       "'2024-05-06 04:00:00')")
    print("one hour of one series:", plan[-1][0])


def beside(archive, commits, per_second, backlog):
    store = File(os.path.join(archive.folder, "b.db"))
    store.table("T", "sample")
    store.samples("T", backlog)
    configuration = archive.device(1, {"b": store})
    shipper = subprocess.Popen([archive.program, "run", configuration])
    failed, rows, started = 0, backlog, time.monotonic()
    for i in range(commits):
        time.sleep(max(0, started + i / per_second - time.monotonic()))
        try:
            store.samples("T", 2, i)
            rows += 2
        except Exception:  # a lock
            failed += 1
            if store.connection.in_transaction:
                store.run("rollback")
    seconds = time.monotonic() - started
    shipper.kill()
    shipper.wait()
    live = int(archive.sql("select wm from fleet.mark")[0][0])
    archive.ship("run", "--once", configuration)
    verified = archive.ship("verify", configuration).stdout.strip()
    print(f"{commits} commits, {commits / seconds:.0f} a second, after a backlog of {backlog}: {failed} failed; "
          f"{live} of {rows} rows shipped meanwhile; {verified}")


def delay(archive, seconds):
    stores = files(archive, "wal")
    for store in stores.values():
        store.table("T", "sample")
    shipper = subprocess.Popen([archive.program, "run", archive.device(1, stores)])
    while archive.sql("select count(*) from fleet.mark") != [[str(FILES)]]:
        time.sleep(0.1)

    def processor():
        with open(f"/proc/{shipper.pid}/stat", encoding="utf-8") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    time.sleep(1)
    before = processor()
    time.sleep(20)
    print(f"{FILES} idle files: {(processor() - before) / 20:.2%} of a core")
    before, started, commits = processor(), time.monotonic(), 0
    while time.monotonic() - started < seconds:
        time.sleep(max(0, started + commits / 20 - time.monotonic()))
        for store in list(stores.values())[commits % FILES:commits % FILES + 1]:
            store.run("begin immediate")
            for _ in range(50):
                store.run("insert into T values(NULL, '2024-05-06 07:08:09', ?)", (f"{time.time():.4f}",))
            store.run("commit")
        commits += 1
    used = (processor() - before) / (time.monotonic() - started)
    time.sleep(2)
    shipper.kill()
    shipper.wait()
    median, late, most, count = archive.sql(
        "select percentile_disc(0.5) within group (order by d), percentile_disc(0.99) within group (order by d), "
        "max(d), count(*) from (select 1000 * (extract(epoch from pg_xact_commit_timestamp(xmin)) - num::numeric) as d "
        "from fleet.sample) s")[0]
    print(f"commit to visible, {int(count) / seconds:.0f} rows a second: median {float(median):.0f} ms, 99 of 100 "
          f"within {float(late):.0f} ms, longest {float(most):.0f} ms; shipper {used:.1%} of a core")


def main():
    options = argparse.ArgumentParser()
    options.add_argument("program")
    options.add_argument("what", nargs="*", default=["rate", "events", "week", "beside", "delay"])
    options.add_argument("--rows", type=int, default=2000000)
    options.add_argument("--commits", type=int, default=5000)
    given = options.parse_args()
    folder = tempfile.mkdtemp(prefix="fleet-", dir="/tmp")
    cluster = Cluster(folder, "shared_buffers=512MB", "max_wal_size=4GB", "track_commit_timestamp=on")
    try:
        for what in given.what:
            if what == "rate":
                rate(Archive(cluster, given.program, "rate"), given.rows)
            elif what == "events":
                events(Archive(cluster, given.program, "events"), 100000)
            elif what == "week":
                week(Archive(cluster, given.program, "week"), 200, 1000)
            elif what == "delay":
                delay(Archive(cluster, given.program, "delay"), 30)
            else:
                beside(Archive(cluster, given.program, "b20"), given.commits // 10, 20, 200000)
                beside(Archive(cluster, given.program, "b500"), given.commits, 500, 200000)
    finally:
        cluster.stop()
        shutil.rmtree(folder)


if __name__ == "__main__":
    sys.exit(main())
