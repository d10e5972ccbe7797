#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""device-ship beside a real PostgreSQL: every row once, whatever happens.

    fleet_test.py PROGRAM [unittest's arguments]

Long forms: DEVICE_FLEET_KILLS (20), DEVICE_FLEET_STOPS (3), DEVICE_FLEET_CUTS (1, of each kind of message),
DEVICE_FLEET_COMMITS (1000, of the faster of two devices).
"""
import contextlib
import json
import os
import random
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import types
import unittest

import attacks
from cluster import PASSWORD, Archive, Cluster, File, Session, rows_of, skip_without_server
from proxy import Proxy

KILLS = int(os.environ.get("DEVICE_FLEET_KILLS", "20"))
STOPS = int(os.environ.get("DEVICE_FLEET_STOPS", "3"))
CUTS = int(os.environ.get("DEVICE_FLEET_CUTS", "1"))
COMMITS = int(os.environ.get("DEVICE_FLEET_COMMITS", "1000"))
PROGRAM = ""
DEADLINE = 120
DEVICE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "device.py")


def alarm(number, **cells):
    row = {"level": number % 4, "start": f"2024-05-06 07:{number // 60 % 60:02}:{number % 60:02}", "object": "Pump 1",
           "type": "High", "value": "87.5", "limit": "80", "description": "\u00c2\u00b0 above limit", "end_date": "",
           "end_time": "", **cells}
    return tuple(row.values())


class Fleet(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="fleet-", dir="/tmp")
        # The server is killed here, its machine is not: what it wrote is there. A disk that is busy with a hundred new
        # databases takes a minute to sync them after a crash.
        cls.cluster = Cluster(cls.folder, "shared_buffers=32MB", "max_connections=40", "fsync=off")
        cls.number = 0

    @classmethod
    def tearDownClass(cls):
        cls.cluster.stop()
        shutil.rmtree(cls.folder)

    def setUp(self):
        type(self).number += 1
        self.archive = Archive(self.cluster, PROGRAM, f"a{self.number}")
        self.stores = []
        self.services = []

    def tearDown(self):
        for service in self.services:
            service.kill()
            service.wait()
        for store in self.stores:
            store.close()

    def store(self, name, journal="delete"):
        self.stores.append(File(os.path.join(self.archive.folder, name + ".db"), journal))
        return self.stores[-1]

    def start(self, configuration):
        self.services.append(subprocess.Popen([PROGRAM, "run", configuration], stderr=subprocess.DEVNULL))
        return self.services[-1]

    def session(self, role):
        session = Session(self.cluster, self.archive.name, role)
        self.addCleanup(session.close)
        return session

    @contextlib.contextmanager
    def owner(self):
        """A session of the archive's owner, to which statements are given; it does not wait for them."""
        session = subprocess.Popen(
            [os.path.join(self.cluster.programs, "psql"), "-X", "-q", "-h", self.cluster.folder, "-U", "owner", "-d",
             self.archive.name], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True)
        try:
            def give(statements):
                session.stdin.write(statements + "\n")
                session.stdin.flush()
            yield give
        finally:
            session.stdin.close()
            session.wait()

    def until(self, condition, what):
        deadline = time.monotonic() + DEADLINE
        while not condition():
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.02)

    def check(self, device, file, table, kind, lives):
        """lives: rows by their IDs, by the generation in which they were recorded."""
        found = self.archive.rows(device, file, table, kind)
        number = int(self.archive.sql(f"select tbl from fleet.source where device = {device} and file = '{file}' and "
                                      f"name = '{table}'")[0][0])
        gaps = [gap for gap in self.archive.gaps(device) if gap[0] == number]
        truth = {(generation, key): cells for generation, rows in lives.items() for key, cells in rows.items()}
        for key, cells in truth.items():
            if key in found:
                self.assertEqual(found[key], cells, f"{file} {table} {key}")
            else:
                self.assertTrue(any(gap[1] == key[0] and gap[2] <= key[1] <= gap[3] for gap in gaps),
                                f"{file} {table} {key} is missing")
        self.assertEqual(set(found) - set(truth), set(), f"{file} {table}")
        batched = self.archive.sql(f"select coalesce(sum(n), 0) from fleet.batch where device = {device} and "
                                   f"tbl = {number}")
        self.assertEqual(int(batched[0][0]), len(found))

    def check_file(self, device, store, file, table, kind, generation=1):
        self.check(device, file, table, kind, {generation: rows_of(store.path, table, kind)})


class Short(Fleet):
    def test_rows_of_each_kind_arrive_unchanged(self):
        store = self.store("h")
        store.table("T1", "sample", "Boiler 1 °C")
        store.samples("T1", 12000)
        for journal in ("delete", "wal"):
            with self.subTest(journal):
                other = self.store(f"o-{journal}", journal)
                other.table("AlarmData", "alarm")
                other.add("AlarmData", [alarm(i) for i in range(50)])
                other.table("OperatorLog", "log")
                other.add("OperatorLog", [(f"2024-05-06 07:08:09.{i:03}", "Jürgen", "", "it's \\ \t 5 µA\r\n")
                                          for i in range(1000)])
        files = {"h": store, "d": self.stores[1], "w": self.stores[2]}
        self.archive.ship("run", "--once", self.archive.device(7, files))
        self.check_file(7, store, "h", "T1", "sample")
        for name in ("d", "w"):
            self.check_file(7, files[name], name, "AlarmData", "alarm")
            self.check_file(7, files[name], name, "OperatorLog", "log")
        self.assertEqual(self.archive.sql("select title from fleet.source where name = 'T1'"), [["Boiler 1 °C"]])
        self.assertEqual(self.archive.gaps(7), [])

    def test_every_row_once_while_shipper_and_server_are_killed(self):
        stores = {"h": self.store("h"), "w": self.store("w", "wal")}
        for store in stores.values():
            store.table("T1", "sample")
            store.table("T2", "sample")
            store.samples("T1", 30000)  # a backlog
        configuration = self.archive.device(1, stores)
        stopped, failures = threading.Event(), []

        def record():
            i = 0
            while not stopped.is_set():
                for store in stores.values():
                    i += 1
                    try:
                        store.samples("T2", 5, i * 5)
                    except Exception as error:  # a commit that met a lock
                        failures.append(error)
                time.sleep(0.002)

        recorder = threading.Thread(target=record)
        recorder.start()
        try:
            for i in range(KILLS):
                service = self.start(configuration)
                if i % max(1, KILLS // STOPS) == 0:
                    time.sleep(random.random() * 0.1)
                    self.cluster.stop("immediate")
                    self.cluster.start()
                time.sleep(random.random() * 0.2)
                service.send_signal(signal.SIGKILL)
                service.wait()
        finally:
            stopped.set()
            recorder.join()
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(failures, [])
        for name, store in stores.items():
            for table in ("T1", "T2"):
                self.check_file(1, store, name, table, "sample")
        self.assertEqual((self.archive.gaps(1), self.archive.generations(1)), ([], 4))

    def test_no_commit_fails_beside_devices_in_rollback_mode_that_are_killed(self):
        stores = {name: self.store(name) for name in ("slow", "fast")}
        for store in stores.values():
            store.table("T", "sample")
            store.samples("T", 20000)  # a backlog
        configuration = self.archive.device(1, stores)
        done, said, lock = threading.Event(), {name: b"" for name in stores}, threading.Lock()

        def record(name, per_second):
            while said[name].count(b".") < COMMITS * per_second // 500 and not done.is_set():
                device = subprocess.Popen([sys.executable, DEVICE, stores[name].path, "T", str(per_second)],
                                          stdout=subprocess.PIPE)
                time.sleep(random.random() * 4)
                device.kill()
                with lock:
                    said[name] += device.communicate()[0]

        recorders = [threading.Thread(target=record, args=each) for each in (("slow", 20), ("fast", 500))]
        for recorder in recorders:
            recorder.start()
        try:
            while any(recorder.is_alive() for recorder in recorders):
                service = self.start(configuration)  # catches up, then live
                time.sleep(random.random() * 5)
                service.kill()
                service.wait()
        finally:
            done.set()
            for recorder in recorders:
                recorder.join()
        for name, store in stores.items():
            print(name, ", ".join(f"{said[name].count(letter)} {what}" for letter, what in
                                  ((b".", "commits"), (b"r", "rollbacks"), (b"x", "failed"))), file=sys.stderr)
            self.assertEqual(said[name].count(b"x"), 0, name)
            store.run("select count(*) from T")  # rolls back what the last kill left
        self.archive.ship("run", "--once", configuration)
        for name, store in stores.items():
            self.check_file(1, store, name, "T", "sample")
        self.assertEqual((self.archive.gaps(1), self.archive.generations(1)), ([], 2))

    def test_every_row_once_wherever_the_connection_is_cut(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.table("AlarmData", "alarm")
        proxy_folder = tempfile.mkdtemp(prefix="p", dir=self.folder)
        proxy = Proxy(proxy_folder, self.folder)
        straight = self.archive.device(1, {"h": store})
        cut = self.archive.device(1, {"h": store}, proxy_folder)
        happened = set()
        kinds = [("client", kind) for kind in "QdcPBDESp"] + [("server", kind) for kind in "RSKZCGTD12"]
        for number in range(1, CUTS + 1):
            for side, kind in kinds + [("server", "C")] * 5:
                for passed_on in (False, True):
                    store.samples("T1", 30)
                    store.add("AlarmData", [alarm(1)])
                    # The answers to a batch are some of the last of a connection.
                    nth = number if kind not in "ZC" else random.randint(1, 12)
                    proxy.cut_at(side, kind, nth, passed_on)
                    done = self.archive.ship("run", "--once", cut, check=False)
                    if proxy.happened:
                        happened.add((side, kind))
                        if not passed_on:
                            self.assertEqual(done.returncode, 1, done.stderr)
        self.assertGreaterEqual(happened, {("client", "Q"), ("client", "d"), ("client", "c"), ("server", "G"),
                                           ("server", "C"), ("server", "Z")})
        self.archive.ship("run", "--once", straight)
        self.check_file(1, store, "h", "T1", "sample")
        self.check_file(1, store, "h", "AlarmData", "alarm")
        self.assertEqual((self.archive.gaps(1), self.archive.generations(1)), ([], 2))

    def test_two_shippers_at_once_and_ids_that_begin_again(self):
        store = self.store("h")
        store.table("T1", "sample")
        configuration = self.archive.device(1, {"h": store})
        self.start(configuration)
        self.start(configuration)
        lives = {}
        for generation in range(1, 6):
            for _ in range(10):
                store.samples("T1", random.randint(1, 60))
            lives[generation] = rows_of(store.path, "T1", "sample")
            last = max(lives[generation])
            self.until(lambda: self.archive.sql("select wm, gen from fleet.mark") == [[str(last), str(generation)]],
                       "all is shipped")
            if generation < 5:
                store.run("delete from 'T1'")
                store.run("update sqlite_sequence SET seq = 0 where name = 'T1'")
                self.until(lambda: self.archive.generations(1) == generation + 1, "another generation")
        self.check(1, "h", "T1", "sample", lives)
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (5, []))

    def test_a_run_beside_a_service(self):
        stores = {f"f{i}": self.store(f"f{i}", "wal") for i in range(6)}
        for store in stores.values():
            store.table("T1", "sample")
        configuration = self.archive.device(1, stores)
        self.start(configuration)
        for start in range(0, 15 * 3000, 3000):
            for store in stores.values():
                store.samples("T1", 3000, start)
            self.archive.ship("run", "--once", configuration)
        for name, store in stores.items():
            self.check_file(1, store, name, "T1", "sample")

    def test_a_reset_that_was_refilled_beyond_the_watermark(self):
        store = self.store("h")
        store.table("T1", "sample")
        configuration = self.archive.device(1, {"h": store})
        store.samples("T1", 100)
        first = rows_of(store.path, "T1", "sample")
        self.archive.ship("run", "--once", configuration)
        store.run("delete from 'T1'")
        store.run("update sqlite_sequence SET seq = 0 where name = 'T1'")
        store.samples("T1", 250)
        self.archive.ship("run", "--once", configuration)
        self.check(1, "h", "T1", "sample", {1: first, 2: rows_of(store.path, "T1", "sample")})
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (2, []))

    def boot(self, store, rows, noise):
        """A device without a clock: times begin again at each start, and nearly all values are the same."""
        store.add("T1", [(f"2000-01-01 00:{i // 60 % 60:02}:{i % 60:02}", noise if i in (7, 1234) else "0")
                         for i in range(1, rows + 1)])

    def test_equal_rows_above_one_that_differs_are_not_shared(self):
        store = self.store("h")
        store.table("T1", "sample")
        self.boot(store, 3000, "first")
        first = rows_of(store.path, "T1", "sample")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.begin_anew(store, "T1")
        self.boot(store, 2500, "second")
        self.archive.ship("run", "--once", configuration)
        second = {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > 6}
        self.check(1, "h", "T1", "sample", {1: first, 2: second})
        self.assertEqual(self.archive.sql("select gen, parent, after from fleet.generation where gen > 1"),
                         [["2", "1", "6"]])
        self.archive.ship("verify", configuration)

    def test_what_is_no_new_generation(self):
        store = self.store("h")
        for table in ("Emptied", "Reset", "Trimmed"):
            store.table(table, "sample")
            store.samples(table, 100)
        configuration = self.archive.device(1, {"h": store})
        truth = {table: rows_of(store.path, table, "sample") for table in ("Emptied", "Reset", "Trimmed")}
        self.archive.ship("run", "--once", configuration)
        store.run("delete from 'Emptied'")
        store.run("update sqlite_sequence SET seq = 0 where name = 'Reset'")  # with rows, which changes nothing
        store.run("delete from 'Trimmed' where ID > 60")  # the row at the watermark is gone, which proves nothing
        self.archive.ship("run", "--once", configuration)
        for table, rows in truth.items():
            store.samples(table, 20)
            rows.update(rows_of(store.path, table, "sample"))
        self.archive.ship("run", "--once", configuration)
        for table, rows in truth.items():
            self.assertEqual(max(rows), 120)
            self.check(1, "h", table, "sample", {1: rows})
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (3, []))

    def test_a_counter_that_is_no_integer_is_worth_what_sqlite_goes_on_from(self):
        store = self.store("h")
        counters = {"T1": "'77'", "T2": "'abc'", "T3": "x'ff'", "T4": "'120'", "T5": "NULL", "T6": "12.5"}
        for table in counters:
            store.table(table, "sample")
            store.samples(table, 100)
        store.table("Emptied", "sample")
        store.samples("Emptied", 100)
        emptied = rows_of(store.path, "Emptied", "sample")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        for table, counter in counters.items():
            store.run(f"update sqlite_sequence SET seq = {counter} where name = '{table}'")
        store.run("update sqlite_sequence SET seq = '100' where name = 'Emptied'")
        store.run("delete from Emptied")
        for _ in range(2):
            self.archive.ship("run", "--once", configuration)
            for table in (*counters, "Emptied"):
                store.samples(table, 1, 100)
        self.archive.ship("run", "--once", configuration)
        for table in counters:
            self.check_file(1, store, "h", table, "sample")
        self.assertEqual(max(rows_of(store.path, "Emptied", "sample")), 102)
        self.check(1, "h", "Emptied", "sample", {1: {**emptied, **rows_of(store.path, "Emptied", "sample")}})
        self.assertEqual(self.archive.generations(1), 7)
        self.assertEqual([gap[2:] for gap in self.archive.gaps(1)], [(101, 120)])

    def test_a_file_without_a_counter(self):
        store = self.store("h")
        store.run("create table T1(ID INTEGER PRIMARY KEY,DATETIME dateTime,Value text)")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)  # an empty table
        for start in (0, 100):
            store.samples("T1", 100, start)
            self.archive.ship("run", "--once", configuration)
            self.check_file(1, store, "h", "T1", "sample")
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (1, []))
        store.run("delete from T1 where ID > 150")  # the IDs above are given again
        first = rows_of(store.path, "T1", "sample")
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 100, 300)
        self.archive.ship("run", "--once", configuration)
        found = self.archive.rows(1, "h", "T1", "sample")
        self.assertEqual({key[1]: row for key, row in found.items() if key[0] == 2},
                         {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key not in first})
        self.assertEqual((len(found), self.archive.generations(1)), (300, 2))

    def test_an_id_below_one_is_no_other_life(self):
        for name, options in (("h", ""), ("c", " autoincrement")):
            store = self.store(name)
            store.run(f"create table T1(ID integer primary key{options},DATETIME dateTime,Value text)")
            store.run("insert into T1 values(-5, '2024-05-06 07:08:09', '1')")
        configuration = self.archive.device(1, {"h": self.stores[0], "c": self.stores[1]})
        self.archive.ship("run", "--once", configuration)
        for name, store in zip("hc", self.stores):
            store.run("insert into T1 values(7, '2024-05-06 07:08:10', '2')")
            store.run("update T1 set Value = '3' where ID < 0")
        self.archive.ship("run", "--once", configuration)
        for name, store in zip("hc", self.stores):
            self.check(1, name, "T1", "sample", {1: {7: rows_of(store.path, "T1", "sample")[7]}})
        self.assertEqual(self.archive.generations(1), 2)

    def test_the_highest_id_that_there_can_be(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        highest = 2 ** 63 - 1
        store.run("insert into T1 values(?, '2024-05-06 07:08:09', '1')", (highest,))
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        with open(store.path + ".shipped", encoding="utf-8") as file:  # as far as any reader of JSON understands
            self.assertEqual(json.load(file)["shipped"], {"T1": 2 ** 53})
        former = rows_of(store.path, "T1", "sample")
        store.run("update T1 set Value = '2' where ID = ?", (highest,))
        self.archive.ship("run", "--once", configuration)
        self.check(1, "h", "T1", "sample",
                   {1: former, 2: {highest: rows_of(store.path, "T1", "sample")[highest]}})

    def test_rows_that_go_before_they_are_shipped_leave_a_gap(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.table("T2", "sample")
        configuration = self.archive.device(1, {"h": store})
        store.samples("T1", 10)
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 90)
        store.samples("T2", 30)
        store.run("delete from 'T1' where ID <= 40 or ID in (50, 51, 70) or ID > 95")
        store.run("delete from 'T2'")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.gaps(1), [(1, 1, 11, 40), (1, 1, 50, 51), (1, 1, 70, 70), (1, 1, 96, 100),
                                                (2, 1, 1, 30)])
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(len(self.archive.gaps(1)), 5)
        self.assertEqual(self.archive.generations(1), 2)

    def test_a_table_that_begins_anew_after_a_gap(self):
        for copied in (False, True):  # the rows of the gap come back, or others
            with self.subTest(copied=copied):
                device = self.archive.sql("select count(*) + 1 from fleet.device")[0][0]
                store = self.store(f"h{device}")
                store.table("T1", "sample")
                store.samples("T1", 10)
                configuration = self.archive.device(device, {"h": store})
                self.archive.ship("run", "--once", configuration)
                first = rows_of(store.path, "T1", "sample")
                store.samples("T1", 3)
                shutil.copy(store.path, store.path + ".old")
                store.run("delete from T1 where ID > 10")
                self.archive.ship("run", "--once", configuration)
                if copied:
                    store.close()
                    os.replace(store.path + ".old", store.path)
                    store = self.store(f"h{device}")
                    store.samples("T1", 4)
                    after = 10
                else:
                    self.begin_anew(store, "T1")
                    store.samples("T1", 20, 5000)
                    after = 0
                self.archive.ship("run", "--once", configuration)
                second = {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > after}
                self.check(device, "h", "T1", "sample", {1: first, 2: second})
                self.assertEqual(self.archive.generations(device), 2)
                self.archive.ship("verify", configuration)

    def test_a_refused_row_is_no_proof(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        first = rows_of(store.path, "T1", "sample")
        self.archive.sql("alter table fleet.sample add constraint strict check (val is distinct from 'poison')")
        store.run("insert into T1(DATETIME,Value) values('2024-05-06 07:00:00','poison')")
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 5)
        store.run("delete from T1 where ID > 11")  # the refused row is the newest again
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.generations(1), 1)
        self.begin_anew(store, "T1")
        store.samples("T1", 20, 5000)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.generations(1), 2)
        found = self.archive.rows(1, "h", "T1", "sample")
        second = rows_of(store.path, "T1", "sample")
        self.assertEqual({key[1]: row for key, row in found.items() if key[0] == 2}, second)
        self.assertEqual({key: found[(1, key)] for key in first}, first)

    def test_a_row_that_was_removed_from_the_archive_is_no_other_life(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("delete from fleet.sample where id >= 9")
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 5)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (1, []))
        self.assertEqual(self.archive.sql("select count(*) from fleet.sample"), [["13"]])
        self.assertIn("2 rows missing (ID 9, 10)", self.archive.ship("verify", configuration, check=False).stdout)

    def test_a_row_that_was_changed_below_a_refused_one_is_no_other_life(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 9)
        store.run("insert into T1(DATETIME,Value) values('2024-05-06 07:00:00','poison')")
        self.archive.sql("alter table fleet.sample add check (val is distinct from 'poison')")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = 'changed' where id = 4")
        for _ in range(3):
            self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.generations(1), 1)
        self.assertEqual(self.archive.sql("select count(*) from fleet.sample"), [["10"]])

    def test_refused_rows_at_the_end_of_a_file_that_is_put_back_are_not_stored_again(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 9)
        store.add("T1", [("2024-05-06 07:00:00", "poison")] * 3)
        shutil.copy(store.path, store.path + ".copy")
        store.samples("T1", 10)
        self.archive.sql("alter table fleet.sample add check (val is distinct from 'poison')")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        store = self.put_back("h", store, store.path + ".copy")
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 5, 5000)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select gen, count(*), min(id) from fleet.sample group by 1 order by 1"),
                         [["1", "22", "1"], ["2", "5", "13"]])

    def test_a_statement_that_the_disk_does_not_hold(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        with open(store.path + ".shipped", encoding="utf-8") as statement:
            before = statement.read()
        store.samples("T1", 10)

        def fill():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (10, 10))

        done = subprocess.run([PROGRAM, "run", "--once", configuration], stderr=subprocess.PIPE, text=True,
                              preexec_fn=fill, timeout=DEADLINE)
        self.assertIn("h.db.shipped: it cannot be written", done.stderr)
        self.assertEqual(done.returncode, 3)
        with open(store.path + ".shipped", encoding="utf-8") as statement:
            self.assertEqual(statement.read(), before)
        self.check_file(1, store, "h", "T1", "sample")

    def test_an_old_file_that_is_put_back(self):
        for journal in ("delete", "wal"):
            for shipped_before in (True, False):  # before the restored file records again
                with self.subTest(journal=journal, shipped_before=shipped_before):
                    device = self.archive.sql("select count(*) + 1 from fleet.device")[0][0]
                    store = self.store(f"h{device}", journal)
                    store.table("T1", "sample")
                    configuration = self.archive.device(device, {"h": store})
                    store.samples("T1", 3000)
                    store.run("pragma wal_checkpoint(truncate)")
                    shutil.copy(store.path, store.path + ".old")
                    store.samples("T1", 2000)
                    first = rows_of(store.path, "T1", "sample")
                    self.archive.ship("run", "--once", configuration)
                    store.close()
                    os.replace(store.path + ".old", store.path)
                    store = self.store(f"h{device}", journal)
                    if shipped_before:
                        self.archive.ship("run", "--once", configuration)
                    store.samples("T1", 2500)
                    self.archive.ship("run", "--once", configuration)
                    second = {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > 3000}
                    self.check(device, "h", "T1", "sample", {1: first, 2: second})
                    self.assertEqual(self.archive.generations(device), 2)
                    self.assertEqual(self.archive.sql(f"select gen, parent, after from fleet.generation where device = "
                                                      f"{device} and gen = 2"), [["2", "1", "3000"]])
                    # A device that goes back to the later life again.
                    self.assertEqual(self.archive.ship("verify", configuration).returncode, 0)

    def put_back(self, name, store, copy):
        store.close()
        shutil.copy(copy, store.path)
        return self.store(name)

    def test_a_file_that_is_put_back_after_its_tables_were_emptied(self):
        for meanwhile in ("", "shipped", "lost"):
            with self.subTest(meanwhile):
                device = self.archive.sql("select count(*) + 1 from fleet.device")[0][0]
                name = f"h{device}"
                store = self.store(name)
                store.table("T1", "sample")
                store.table("AlarmData", "alarm")
                store.samples("T1", 100)
                store.add("AlarmData", [alarm(i) for i in range(20)])
                configuration = self.archive.device(device, {"h": store})
                self.archive.ship("run", "--once", configuration)
                shutil.copy(store.path, store.path + ".copy")
                lives = {table: {1: rows_of(store.path, table, kind), 2: {}}
                         for table, kind in (("T1", "sample"), ("AlarmData", "alarm"))}
                for table in lives:
                    store.run(f"delete from '{table}'")
                    store.run("update sqlite_sequence SET seq = 0 where name = ?", (table,))
                self.archive.ship("run", "--once", configuration)
                if meanwhile:
                    store.samples("T1", 30, 5000)
                if meanwhile == "lost":
                    store.run("delete from T1")
                lives["T1"][2] = rows_of(store.path, "T1", "sample")
                self.archive.ship("run", "--once", configuration)
                store = self.put_back(name, store, store.path + ".copy")
                self.archive.ship("run", "--once", configuration)
                store.samples("T1", 10, 9000)
                self.archive.ship("run", "--once", configuration)
                lives["T1"][3] = {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > 100}
                self.check(device, "h", "T1", "sample", lives["T1"])
                self.check(device, "h", "AlarmData", "alarm", lives["AlarmData"])
                self.assertEqual(self.archive.sql(f"select tbl, gen, parent, after from fleet.generation where device "
                                                  f"= {device} and gen > 1 order by 1, 2"),
                                 [["1", "2", None, "0"], ["1", "3", "1", "20"],
                                  ["2", "2", None, "0"], ["2", "3", "1", "100"]])
                self.assertEqual(self.archive.sql("select state, count(*), count(last_seen) from fleet.alarms where "
                                                  f"device = {device} group by 1"), [["active", "20", "0"]])

    def test_an_older_copy_by_mistake_and_then_the_right_file(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        shutil.copy(store.path, store.path + ".older")
        store.samples("T1", 100, 5000)
        shutil.copy(store.path, store.path + ".right")
        truth = rows_of(store.path, "T1", "sample")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        for copy in (".older", ".right"):
            store = self.put_back("h", store, store.path + copy)
            self.archive.ship("run", "--once", configuration)
        self.check(1, "h", "T1", "sample", {1: truth})
        store.samples("T1", 10, 9000)
        self.archive.ship("run", "--once", configuration)
        later = {key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > 200}
        self.check(1, "h", "T1", "sample", {1: truth, 3: later})
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (3, []))

    def test_alarms_that_end_are_corrected_and_are_removed(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        configuration = self.archive.device(1, {"a": store})
        store.add("AlarmData", [alarm(i) for i in range(6)] + [alarm(6, end_date="2024-05-06", end_time="08:00:00")])
        self.archive.ship("run", "--once", configuration)
        end = "update AlarmData set EndDate = '2024/05/06', EndTime = ? where ID = ?"
        store.run(end, ("07:20:00", 1))
        store.run(end, ("07:21:00", 2))
        store.run("delete from AlarmData where ID = 3")  # active
        self.archive.ship("run", "--once", configuration)
        store.run(end, ("07:22:00", 2))  # corrected
        store.run(end, ("07:23:00", 4))
        store.run("delete from AlarmData where ID in (1, 4)")  # the second with an end that nobody has seen
        self.archive.ship("run", "--once", configuration)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(
            self.archive.sql("select id, state, end_date, end_time, ended is not null from fleet.alarms order by id"),
            [["1", "ended", "2024/05/06", "07:20:00", "t"], ["2", "ended", "2024/05/06", "07:22:00", "t"],
             ["3", "gone", "", "", "f"], ["4", "gone", "", "", "f"], ["5", "active", "", "", "f"],
             ["6", "active", "", "", "f"], ["7", "ended", "2024-05-06", "08:00:00", "f"]])
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm_was"), [["2", "07:21:00"]])
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (1, []))

    def test_alarms_that_come_back_are_active_again(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        configuration = self.archive.device(1, {"a": store})
        store.add("AlarmData", [alarm(i) for i in range(3)])
        self.archive.ship("run", "--once", configuration)
        shutil.copy(store.path, store.path + ".copy")
        query = "select state, ended is null, gone is null, last_seen is null from fleet.alarms order by id"
        for reset in (False, True):
            store.run("delete from AlarmData")  # by mistake
            if reset:
                store.run("update sqlite_sequence SET seq = 0")
            self.archive.ship("run", "--once", configuration)
            self.assertEqual(self.archive.sql(query), [["gone", "t", "f", "f"]] * 3)
            store = self.put_back("a", store, store.path + ".copy")
            self.archive.ship("run", "--once", configuration)
            self.assertEqual(self.archive.sql(query), [["active", "t", "t", "t"]] * 3)
        store.run("update AlarmData set EndDate = '2024-05-06', EndTime = '08:00:00' where ID = 1")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(query)[0], ["ended", "f", "t", "t"])
        store.run("update AlarmData set EndDate = '', EndTime = '' where ID = 1")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(query)[0], ["active", "t", "t", "t"])
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm_was"), [["1", "08:00:00"]])
        self.check(1, "a", "AlarmData", "alarm", {1: rows_of(store.path, "AlarmData", "alarm")})

    def begin_anew(self, store, table):
        store.run(f"delete from {table}")
        store.run(f"delete from sqlite_sequence where name = '{table}'")

    def test_ends_of_another_life_are_not_those_of_the_former_one(self):
        full = [self.store(f"a{i}") for i in range(6)]
        for other in full:
            other.table("T1", "sample")
        store = self.store("b")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i, end_date="2024/05/06", end_time="08:00:00") for i in range(50)])
        service = self.start(self.archive.device(1, {**{f"a{i}": other for i, other in enumerate(full)}, "b": store}))
        there = "select (select count(*) from fleet.mark), (select count(*) from fleet.alarm)"
        self.until(lambda: self.archive.sql(there) == [["7", "50"]], "all files were looked at")
        former = rows_of(store.path, "AlarmData", "alarm")
        service.send_signal(signal.SIGSTOP)
        for other in full:  # each has more than a transaction takes: that leaves no room for the alarms
            other.add("T1", [("2024-05-06 07:08:09", "x" * 1100)] * 2500)
        self.begin_anew(store, "AlarmData")
        store.add("AlarmData", [alarm(i, object="Pump 2", end_date="2025/01/01", end_time="09:09:09")
                                for i in range(60)])
        self.archive.sql("select pg_terminate_backend(pid) from pg_stat_activity where usename = 'dev_1'")
        service.send_signal(signal.SIGCONT)
        self.until(lambda: len(self.archive.rows(1, "b", "AlarmData", "alarm")) == 110, "the alarms are shipped")
        self.check(1, "b", "AlarmData", "alarm", {1: former, 2: rows_of(store.path, "AlarmData", "alarm")})
        self.assertEqual(self.archive.sql("select * from fleet.alarm_was"), [])

    def test_a_life_that_ends_while_its_ends_are_compared(self):
        store = self.store("a", "wal")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i, end_date="2024/05/06", end_time="08:00:00") for i in range(5000)])
        configuration = self.archive.device(1, {"a": store})
        self.archive.ship("run", "--once", configuration)
        former = rows_of(store.path, "AlarmData", "alarm")
        with self.owner() as owner:  # which ends wait for
            owner("begin; lock table fleet.alarm_was in exclusive mode;")
            shipper = subprocess.Popen([PROGRAM, "run", "--once", configuration])
            waits = "select count(*) from pg_stat_activity where wait_event_type = 'Lock' and query ~ 'end_alarms'"
            self.until(lambda: self.archive.sql(waits) == [["1"]], "the first ends are on their way")
            self.begin_anew(store, "AlarmData")
            store.add("AlarmData", [alarm(i, object="Pump 2", end_date="2025/01/01", end_time="09:09:09")
                                    for i in range(6000)])
            owner("commit;")
            self.assertEqual(shipper.wait(DEADLINE), 0)
        self.archive.ship("run", "--once", configuration)
        self.check(1, "a", "AlarmData", "alarm", {1: former, 2: rows_of(store.path, "AlarmData", "alarm")})

    def test_an_end_that_another_shipper_brings_at_the_same_time_is_kept_when_it_is_corrected(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(1), alarm(2)])
        configuration = self.archive.device(1, {"a": store})
        self.archive.ship("run", "--once", configuration)
        other = self.session("dev_1")
        other.run("begin; select fleet.end_alarms(1::smallint, 1::smallint, '{1}', '{2024/05/06}', '{08:00:00}', "
                  "'{NULL}');")
        store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '09:00:00'")
        shipper = subprocess.Popen([PROGRAM, "run", "--once", configuration])
        waits = "select count(*) from pg_stat_activity where wait_event_type = 'Lock' and query ~ 'end_alarms'"
        self.until(lambda: self.archive.sql(waits) == [["1"]], "the ends are on their way")
        other.run("commit;")
        self.assertEqual(shipper.wait(DEADLINE), 0)
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm order by id"),
                         [["1", "09:00:00"], ["2", "09:00:00"]])
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm_was"), [["1", "08:00:00"]])

    def test_when_an_alarm_was_seen_last_is_known_from_the_run_before(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        configuration = self.archive.device(1, {"a": store})
        store.add("AlarmData", [alarm(1)])
        began = self.archive.sql("select now()")[0][0]
        self.archive.ship("run", "--once", configuration)
        seen = self.archive.sql("select now()")[0][0]
        os.rename(store.path, store.path + ".away")  # a run that cannot look
        self.assertEqual(self.archive.ship("run", "--once", configuration, check=False).returncode, 3)
        os.rename(store.path + ".away", store.path)
        store.run("delete from AlarmData")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(f"select state, last_seen between '{began}' and '{seen}' from "
                                          "fleet.alarms"), [["gone", "t"]])

    def test_another_life_in_a_damaged_file_does_not_stop_the_others(self):
        damaged, good = self.store("damaged"), self.store("good")
        for store, rows in ((damaged, 20000), (good, 10)):
            store.table("T1", "sample")
            store.samples("T1", rows)
        configuration = self.archive.device(1, {"damaged": damaged, "good": good})
        self.archive.ship("run", "--once", configuration)
        former = self.archive.rows(1, "damaged", "T1", "sample")
        damaged.run("update T1 set Value = 'another' where ID = 20000")
        damaged.samples("T1", 10)
        size, pages = (damaged.run(f"pragma {what}").fetchone()[0] for what in ("page_size", "page_count"))
        damaged.close()
        with open(damaged.path, "r+b") as file:  # of the older rows, which are compared with the archive's
            file.seek(pages // 4 * size)
            file.write(b"\xff" * (pages // 4 * size))
        good.samples("T1", 5)
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False, timeout=30)
            self.assertEqual((done.returncode, done.stdout), (3, ""))
            self.assertIn("damaged.db: ", done.stderr)
            self.check_file(1, good, "good", "T1", "sample")
        self.assertEqual(self.archive.rows(1, "damaged", "T1", "sample"), former)
        self.start(configuration)
        good.samples("T1", 5)
        self.until(lambda: self.archive.sql("select count(*) from fleet.sample where tbl = 2") == [["20"]], "shipped")
        self.until(lambda: "damaged.db" in self.archive.sql("select trouble from fleet.device")[0][0], "it is told")

    def test_a_service_sees_ends_at_once(self):
        store = self.store("a", "wal")
        store.table("AlarmData", "alarm")
        self.start(self.archive.device(1, {"a": store}))
        store.add("AlarmData", [alarm(1)])
        state = "select state from fleet.alarms"
        self.until(lambda: self.archive.sql(state) == [["active"]], "it is active")
        store.run("update AlarmData set EndDate = '2024-05-06', EndTime = '08:00:00'")
        self.until(lambda: self.archive.sql(state) == [["ended"]], "it has ended")
        store.add("AlarmData", [alarm(2)])
        self.until(lambda: self.archive.sql(state + " order by id") == [["ended"], ["active"]], "another is active")
        store.run("delete from AlarmData")
        self.until(lambda: self.archive.sql(state + " order by id") == [["ended"], ["gone"]], "it is gone")
        self.assertEqual(self.archive.sql("select last_seen is not null from fleet.alarms where id = 2"), [["t"]])

    def test_a_quiet_file_is_seen_beside_one_that_is_written_without_a_pause(self):
        stores = {name: self.store(name, journal) for name, journal in (("busy", "wal"), ("quiet", "wal"),
                                                                        ("locked", "delete"))}
        for store in stores.values():
            store.table("T1", "sample")
            store.samples("T1", 1)
        self.start(self.archive.device(1, stores))
        arrived = "select wm from fleet.source join fleet.mark using (device, tbl) where file = '{}'"

        def through(name, last):
            stores["busy"].samples("T1", 1)
            return self.archive.sql(arrived.format(name)) == [[str(last)]]

        for last in (1, 2, 3):
            for name in ("quiet", "locked"):
                self.until(lambda name=name, last=last: through(name, last), f"{name} through {last}")
                for _ in range(20):  # until nobody looks at it any more
                    stores["busy"].samples("T1", 1)
                    time.sleep(0.05)
                stores[name].samples("T1", 1)
        # The device makes the file anew.
        os.rename(stores["quiet"].path, stores["quiet"].path + ".old")
        other = self.store("quiet", "wal")
        other.table("T1", "sample")
        other.samples("T1", 2)
        self.until(lambda: through("quiet", 2), "the new one")
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (4, []))

    def test_a_folder_that_is_made_again_is_watched(self):
        folder = os.path.join(self.archive.folder, "data")
        rows = "select wm from fleet.mark"
        configuration = None
        for leave in (None, shutil.rmtree, lambda path: os.rename(path, path + ".old")):
            if leave:
                self.stores[-1].close()
                leave(folder)
                time.sleep(2)
            os.mkdir(folder)
            store = self.store("data/h", "wal")
            store.table("T1", "sample")
            if not configuration:
                configuration = self.archive.device(1, {"h": store})
                self.start(configuration)
            store.samples("T1", 1)
            self.until(lambda: self.archive.sql(rows) == [["1"]], "the first row")
            for last in (2, 3):
                time.sleep(1)  # until nobody looks at it any more
                store.samples("T1", 1)
                began = time.monotonic()
                self.until(lambda last=last: self.archive.sql(rows) == [[str(last)]], f"row {last}")
                self.assertLess(time.monotonic() - began, 5)

    def test_a_file_of_two_names_is_shipped_once(self):
        store = self.store("made")
        store.table("T1", "sample")
        store.samples("T1", 5)
        names = {name: types.SimpleNamespace(path=os.path.join(self.archive.folder, name + ".db"))
                 for name in ("first", "hard", "soft")}
        configuration = self.archive.device(1, names)
        os.symlink(names["first"].path, names["soft"].path)  # which leads nowhere yet
        self.start(configuration)
        trouble = "select 1 from fleet.device where trouble like '%soft.db: {}%'"
        self.until(lambda: self.archive.sql(trouble.format("")), "it has looked")
        for name in ("first", "hard"):
            os.link(store.path, names[name].path)
        self.until(lambda: self.archive.sql(trouble.format("not shipped, because it is one file with")), "it is told")
        os.remove(names["soft"].path)
        done = self.archive.ship("run", "--once", configuration, check=False)
        self.assertEqual(done.returncode, 3)
        self.assertRegex(done.stderr, "hard.db: not shipped, because it is one file with .*first.db")
        self.assertEqual(self.archive.sql("select file, count(*) from fleet.sample join fleet.source using (tbl) "
                                          "group by 1"), [["first", "5"]])

    def test_a_file_that_is_never_still_is_told(self):
        for held in ("locking_mode=exclusive", "begin immediate"):
            with self.subTest(held):
                device = self.archive.sql("select count(*) + 1 from fleet.device")[0][0]
                stores = {name: self.store(f"{name}{device}") for name in ("held", "other")}
                if held.startswith("locking"):
                    stores["held"].run(f"pragma {held}")
                for store in stores.values():
                    store.table("T1", "sample")
                    store.samples("T1", 10)
                if held.startswith("begin"):
                    stores["held"].run("pragma cache_size=1")
                    stores["held"].run(held)
                    stores["held"].run("insert into T1 values(NULL,'2024-05-06 07:08:09',hex(zeroblob(5000)))")
                configuration = self.archive.device(device, stores)
                done = self.archive.ship("run", "--once", configuration, check=False)
                self.assertEqual(done.returncode, 3)
                self.assertIn(f"held{device}.db: it is written without a pause, or held locked", done.stderr)
                self.check_file(device, stores["other"], "other", "T1", "sample")
                trouble = f"select trouble like '%held locked%' from fleet.device where device = {device}"
                self.assertEqual(self.archive.sql(trouble), [["t"]])
                self.archive.sql(f"update fleet.device set trouble = '' where device = {device}")
                service = self.start(configuration)
                self.until(lambda: self.archive.sql(trouble) == [["t"]], "the service says so")
                if held.startswith("begin"):
                    stores["held"].run("commit")
                stores["held"].close()
                # The other file waits for nobody.
                self.until(lambda: self.archive.sql(f"select count(*) from fleet.mark where device = {device} "
                                                    "and wm > 0") == [["2"]], "it is shipped")
                self.until(lambda: self.archive.sql(trouble) == [["f"]], "all is well again")
                service.kill()

    def test_cells_that_postgresql_cannot_hold(self):
        store = self.store("h")
        store.table("T1", "sample")
        for time_cell in ("'2024-05-06 07:08:09'", "'now'", "'infinity'", "'-infinity'", "'2024-02-30 00:00:00'",
                          "'2024-05-06 24:00:00'", "'2024-05-06 07:08:60'", "'2024-05-06T07:08:09'", "''", "2024",
                          "20240506070809.125", "NULL", "x'00'", "'0000-01-01 00:00:00'", "'9999-12-31 23:59:59'",
                          "'0001-01-01 00:00:00'", "'2024-05-06 07:08:09.5'", "cast(x'6e6f7700' as text)",
                          "'epoch'", "' 2024-05-06 07:08:09'"):
            store.run(f"insert into T1(DATETIME, Value) values({time_cell}, '1')")
        for value in ("NULL", "''", "x''", "x'00ff'", "cast(x'00' as text)", "cast(x'61ff62' as text)",
                      "cast(x'eda080' as text)", "cast(x'c080' as text)", "cast(x'f4908080' as text)", "'\\N'", "'\\.'",
                      "'a\tb\nc\rd\\e'", "'\"(),'", "char(0x1f6a8)", "'1e999'", "'nan'", "' +5 '", "'0x10'", "'1,5'",
                      "char(0xfeff) || '1'"):
            store.run(f"insert into T1(DATETIME, Value) values('2024-05-06 07:08:09', {value})")
        store.table("AlarmData", "alarm")
        for level in ("'high'", "1.5", "NULL", "x'01'", "-9223372036854775808"):
            store.run(f"insert into AlarmData values(NULL, {level}, '2024-05-06 07:08:09', 'a', x'01', NULL, '', "
                      "'\u00b0 once', '', cast(x'ff' as text))")
        store.table("OperatorLog", "log")
        store.run("insert into OperatorLog values(NULL, '2024-05-06 07:08:09', 'no milliseconds', '', '')")
        store.run("insert into OperatorLog values(NULL, '2024-05-06 07:08:09.120', NULL, '', x'00')")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.check_file(1, store, "h", "T1", "sample")
        self.check_file(1, store, "h", "AlarmData", "alarm")
        self.check_file(1, store, "h", "OperatorLog", "log")
        self.assertIn("all equal", self.archive.ship("verify", configuration).stdout)
        numbers = self.archive.sql("select num from fleet.sample where num is not null and id > 20 order by id")
        self.assertEqual(numbers, [["5"]])

    def test_a_cell_that_is_too_large_is_recorded_as_refused(self):
        store = self.store("h")
        store.table("T1", "sample")
        for value in ("'before'", "zeroblob(100000000)", "'between'", "replace(hex(zeroblob(3000000)), '0', 'x')",
                      "'after'"):
            store.run(f"insert into T1(DATETIME, Value) values('2024-05-06 07:08:09', {value})")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select val, odd->'Value'->>'size' from fleet.sample order by id"),
                         [["before", None], [None, "100000000"], ["between", None], [None, "6000000"], ["after", None]])
        self.assertIn("5 rows compared, all equal", self.archive.ship("verify", configuration).stdout)

    def test_a_row_that_is_too_large_is_kept_in_part(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(1)])
        store.run("insert into AlarmData select NULL, 1.23456789012345678, '2024-05-06 07:08:09', 'P', "
                  "cast(zeroblob(4190000) || x'ff' as text), 'small', cast(zeroblob(4190000) || x'ff' as text), "
                  "cast(zeroblob(4190000) || x'ff' as text), '', ''")
        store.add("AlarmData", [alarm(2)])
        configuration = self.archive.device(1, {"a": store})
        found = ("select id, object, value, length(odd->'AlarmType'->>'bytes'), odd->'LimitValue'->>'size', "
                 "odd->'AlarmDescription'->>'size', end_odd->'EndDate'->>'size' from fleet.alarm order by id")
        small = ["Pump 1", "87.5", None, None, None, None]
        large = ["2", "P", "small", "8380002", "4190001", "4190001"]
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(found), [["1", *small], [*large, None], ["3", *small]])
        # An end that is too large changes how the row is read, and not which one it is.
        store.run("delete from AlarmData where ID = 3")
        store.run("update AlarmData set EndDate = hex(zeroblob(3000000)) where ID = 2")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(found), [["1", *small], [*large, "6000000"], ["3", *small]])
        self.assertIn("2 rows compared, all equal", self.archive.ship("verify", configuration).stdout)
        self.assertEqual(self.archive.generations(1), 1)

    def test_an_end_that_is_too_large_is_recorded_as_refused(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        store.table("T1", "sample")
        configuration = self.archive.device(1, {"a": store})
        store.add("AlarmData", [alarm(i) for i in range(4)])
        self.archive.ship("run", "--once", configuration)
        end = "update AlarmData set EndDate = ?, EndTime = ? where ID = ?"
        large = "x" * 5000000
        store.run(end, (large, "08:00:00", 2))
        store.run(end, ("2024/05/06", "08:00:00", 3))
        store.samples("T1", 10)
        found = "select id, end_date, end_time, end_odd->'EndDate'->>'size' from fleet.alarm order by id"
        for _ in range(2):  # the second compares all ends
            self.archive.ship("run", "--once", configuration)
            self.assertEqual(self.archive.sql(found),
                             [["1", "", "", None], ["2", None, "08:00:00", "5000000"],
                              ["3", "2024/05/06", "08:00:00", None], ["4", "", "", None]])
        self.check_file(1, store, "a", "T1", "sample")
        store.run(end, (large, large, 1))
        store.run(end, ("2024/05/07", large, 3))
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql(found),
                         [["1", None, None, "5000000"], ["2", None, "08:00:00", "5000000"],
                          ["3", "2024/05/07", None, None], ["4", "", "", None]])
        self.assertIn("4 rows compared, all equal", self.archive.ship("verify", configuration).stdout)

    def test_a_row_that_the_archive_refuses_does_not_stop_the_others(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        store.run("insert into T1(DATETIME, Value) values('2024-05-06 07:08:09', 'refused here')")
        store.samples("T1", 100)
        self.archive.sql("alter table fleet.sample add check (val <> 'refused here')")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select count(*), count(val) from fleet.sample"), [["201", "200"]])
        self.assertIn("check constraint", self.archive.sql("select odd from fleet.sample where id = 101")[0][0])
        self.assertEqual(self.archive.ship("verify", configuration).stdout,
                         "h T1: 201 rows compared, 1 row is recorded as refused, all others equal\n")
        store.run("delete from T1 where ID > 101")  # it is the newest now, and still the same
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.generations(1), 1)

    def test_a_row_that_the_archive_takes_in_no_form_stops_its_table_alone(self):
        stores = {"a": self.store("a"), "b": self.store("b")}
        for store in stores.values():
            for table in ("T1", "T2"):
                store.table(table, "sample")
                store.samples(table, 300)
        configuration = self.archive.device(1, stores)
        self.archive.sql("alter table fleet.sample add constraint mine check (id <> 101 or tbl <> 1)")
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            self.assertIn("a.db: the archive does not take the rows of the table T1 after ID 100: ", done.stderr)
            self.assertIn("mine", self.archive.sql("select trouble from fleet.device")[0][0])
            self.assertEqual(self.archive.sql("select wm from fleet.mark order by tbl"),
                             [["100"], ["300"], ["300"], ["300"]])
        self.archive.sql("alter table fleet.sample drop constraint mine")
        self.archive.ship("run", "--once", configuration)
        for name, store in stores.items():
            for table in ("T1", "T2"):
                self.check_file(1, store, name, table, "sample")
        self.assertEqual(self.archive.sql("select count(*) from fleet.sample where odd is not null"), [["0"]])

    def test_ends_of_a_table_that_is_put_aside_arrive(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(1, end_date="2024/05/06", end_time="08:00:00"), alarm(2)])
        configuration = self.archive.device(1, {"a": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("alter table fleet.alarm add check (id <> 3)")
        store.add("AlarmData", [alarm(3)])
        store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '09:00:00' where ID < 3")
        self.assertEqual(self.archive.ship("run", "--once", configuration, check=False).returncode, 3)
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm order by id"),
                         [["1", "09:00:00"], ["2", "09:00:00"]])

    def test_rows_that_the_archive_has_above_a_watermark_stop_their_table_alone(self):
        store = self.store("h")
        for table in ("T1", "T2"):
            store.table(table, "sample")
            store.samples(table, 100)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        store.samples("T2", 100)
        self.archive.sql("update fleet.mark set wm = 50 where tbl = 1")  # as after a bad repair by hand
        done = self.archive.ship("run", "--once", configuration, check=False)
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("the archive does not take the rows of the table T1 after ID 50: ", done.stderr)
        self.check_file(1, store, "h", "T1", "sample")
        self.check_file(1, store, "h", "T2", "sample")
        self.assertEqual(self.archive.sql("select trouble <> '' from fleet.device"), [["t"]])

    def test_rows_above_a_watermark_hold_up_no_backlog(self):
        stores = {name: self.store(name) for name in ("big", "bad", "late")}
        for store in stores.values():
            store.table("T1", "sample")
            store.samples("T1", 100)
        configuration = self.archive.device(1, stores)
        self.archive.ship("run", "--once", configuration)
        for store, rows in zip(stores.values(), (12000, 100, 100)):
            store.samples("T1", rows)
        self.archive.sql("update fleet.mark set wm = 50 where tbl = 2")
        with open(os.path.join(self.folder, "server.log"), encoding="utf-8", errors="replace") as log:
            log.seek(0, os.SEEK_END)
            self.assertEqual(self.archive.ship("run", "--once", configuration, check=False).returncode, 3)
            self.assertLess(log.read().count("ERROR:"), 10)
        for name in ("big", "late"):
            self.check_file(1, stores[name], name, "T1", "sample")

    def test_refused_rows_of_two_tables_at_once(self):
        store = self.store("h")
        for table in ("T1", "T2", "T3"):
            store.table(table, "sample")
            store.samples(table, 1000)
        store.run("update T1 set Value = 'poison' where ID in (1, 500, 501, 1000)")
        store.run("update T2 set Value = 'poison' where ID in (2, 1000)")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(1, end_date="2024/05/06", end_time="08:00:00")])
        configuration = self.archive.device(1, {"h": store})
        self.archive.sql("alter table fleet.sample add check (val <> 'poison');"
                         "alter role dev_1 set track_functions = 'pl'")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select tbl, id from fleet.sample where val is null order by 1, 2"),
                         [["2", "1"], ["2", "500"], ["2", "501"], ["2", "1000"], ["3", "2"], ["3", "1000"]])
        self.assertEqual(self.archive.sql("select tbl, sum(n) from fleet.batch where tbl > 1 group by 1 order by 1"),
                         [["2", "1000"], ["3", "1000"], ["4", "1000"]])
        # The ends of all alarms are not compared again for each of them.
        calls = "select calls from pg_stat_user_functions where funcname = 'end_alarms'"
        self.until(lambda: self.archive.sql(calls) == [["1"]], "they were compared once")

    def test_a_table_whose_id_is_no_key_is_told_and_not_shipped(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        for name, ddl in (("Copy", "as select * from T1"),
                          ("Descending", "(ID integer primary key desc,DATETIME dateTime,Value text)"),
                          ("Rowless", "(ID integer primary key,DATETIME dateTime,Value text) without rowid"),
                          ("Two", "(ID integer,DATETIME dateTime,Value text, primary key(ID, Value))")):
            store.run(f"create table {name} {ddl}")
        store.run("insert into Copy select * from T1")  # by hand, once more
        store.run("create table Plain(ID integer primary key,DATETIME dateTime,Value text)")
        store.run("insert into Plain select * from T1")
        configuration = self.archive.device(1, {"h": store})
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            self.assertIn("h.db: not shipped, because ID is no INTEGER PRIMARY KEY there: Copy, Descending, Rowless, "
                          "Two", done.stderr)
            self.assertEqual(self.archive.sql("select name, wm from fleet.source join fleet.mark using (tbl) "
                                              "order by tbl"), [["Plain", "100"], ["T1", "100"]])
        self.assertIn("Copy", self.archive.sql("select trouble from fleet.device")[0][0])
        for table in ("Copy", "Descending", "Rowless", "Two"):
            store.run(f"drop table {table}")
        self.archive.ship("run", "--once", configuration)
        self.check_file(1, store, "h", "T1", "sample")

    def test_a_table_whose_name_begins_with_u_feff_is_another_one(self):
        store = self.store("h")
        for number, table in enumerate(("T1", "\ufeffT1", "\ufeffT2"), 1):
            store.table(table, "sample")
            store.samples(table, 10 * number)
        configuration = self.archive.device(1, {"h": store})
        for _ in range(2):
            self.archive.ship("run", "--once", configuration, timeout=DEADLINE)
            self.assertEqual(self.archive.sql("select name, wm from fleet.source join fleet.mark using (tbl) "
                                              "order by wm"),
                             [["T1", "10"], ["\ufeffT1", "20"], ["\ufeffT2", "30"]])
        self.check_file(1, store, "h", "\ufeffT1", "sample")
        self.assertEqual(self.archive.ship("verify", configuration).stdout.count("all equal"), 3)

    def test_a_table_whose_name_is_not_utf_8_is_told_and_not_shipped(self):
        store = self.store("h")
        for table in ("T1", "B1", "B2", "T\ufffd"):
            store.table(table, "sample")
            store.samples(table, 10)
        store.run("pragma writable_schema=on")
        for table, name in (("B1", "54ff"), ("B2", "54fe")):
            store.run(f"update sqlite_master set name = cast(x'{name}' as text), tbl_name = cast(x'{name}' as text), "
                      f"sql = replace(sql, '{table}', cast(x'{name}' as text)) where name = '{table}'")
        configuration = self.archive.device(1, {"h": store})
        done = self.archive.ship("run", "--once", configuration, check=False)
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("h.db: not shipped, because their names are not UTF-8: T\ufffd, T\ufffd", done.stderr)
        self.assertEqual(self.archive.sql("select name, wm from fleet.source join fleet.mark using (tbl) order by 1"),
                         [["T1", "10"], ["T\ufffd", "10"]])

    def test_a_file_takes_the_place_of_another_with_as_many_changes_of_its_tables(self):
        store, other = self.store("h"), self.store("other")
        store.table("T1", "sample")
        store.table("T2", "sample")
        store.run("drop table T2")
        for table in ("T1", "T2", "T3"):
            other.table(table, "sample")
        other.samples("T2", 7)
        self.start(self.archive.device(1, {"h": store}))
        tables = "select name, wm from fleet.source join fleet.mark using (device, tbl) order by name"
        self.until(lambda: self.archive.sql(tables) == [["T1", "0"]], "the first file was looked at")
        time.sleep(2)  # and once more, because it has just been written
        os.rename(other.path, store.path)
        self.until(lambda: ["T2", "7"] in self.archive.sql(tables), "the other one was")

    def test_a_table_that_the_archive_refuses_does_not_stop_the_others(self):
        store = self.store("h")
        name = "T" + "".join(random.choice("abcdefghijklmnopqrstuvwxyz0123456789") for _ in range(6000))
        for table in (name, "T1"):
            store.table(table, "sample")
            store.samples(table, 10)
        configuration = self.archive.device(1, {"h": store})
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            self.assertIn("h.db: not shipped, because the archive refuses them (index row", done.stderr)
            self.assertIn("refuses", self.archive.sql("select trouble from fleet.device")[0][0])
            self.check_file(1, store, "h", "T1", "sample")
        store.run(f"drop table {name}")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select * from fleet.device where trouble <> ''"), [])

    def test_trouble_of_a_table_ends_with_it(self):
        store = self.store("h")
        for table in ("T1", "T2"):
            store.table(table, "sample")
            store.samples(table, 10)
        self.archive.sql("alter table fleet.sample add constraint mine check (id <> 3 or tbl <> 1)")
        self.start(self.archive.device(1, {"h": store}))
        trouble = "select trouble from fleet.device"
        self.until(lambda: "of the table T1 after ID 2" in str(self.archive.sql(trouble)), "the table is put aside")
        store.run("drop table T1")
        gone = [[f"{store.path}: shipped until now, and gone or with other columns: T1"]]
        self.until(lambda: self.archive.sql(trouble) == gone, "it is gone, and nothing else")

    def test_an_end_that_the_archive_refuses_does_not_stop_the_others(self):
        store, other = self.store("a"), self.store("h")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i) for i in range(10)])
        other.table("T1", "sample")
        configuration = self.archive.device(1, {"a": store, "h": other})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("alter table fleet.alarm add constraint mine check (length(end_time) <= 10)")
        store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '08:00:00' || ID where ID % 2 = 0")
        store.run("update AlarmData set EndTime = EndTime || ' too long' where ID = 4")
        other.samples("T1", 9000)
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            self.assertIn("a.db: the archive does not take the end of the alarm 4 of the table AlarmData: new row",
                          done.stderr)
            self.assertIn("mine", self.archive.sql("select trouble from fleet.device")[0][0])
            self.assertEqual(self.archive.sql("select id from fleet.alarm where end_time <> '' order by id"),
                             [["2"], ["6"], ["8"], ["10"]])
            self.check_file(1, other, "h", "T1", "sample")
        self.archive.sql("alter table fleet.alarm drop constraint mine")
        self.archive.ship("run", "--once", configuration)
        self.check_file(1, store, "a", "AlarmData", "alarm")

    def test_what_stops_a_run_is_in_the_archive(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.sql("revoke execute on function fleet.enrol from fleet_device")
        done = self.archive.ship("run", "--once", configuration, check=False)
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertIn("permission denied", self.archive.sql("select trouble from fleet.device")[0][0])
        self.archive.sql("grant execute on function fleet.enrol to fleet_device")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select * from fleet.device where trouble <> ''"), [])

    def test_a_table_that_is_gone_is_told(self):
        stores = {"a": self.store("a"), "b": self.store("b"), "c": self.store("c")}
        for name, store in stores.items():
            for table in ("T1", "T2", "T3"):
                store.table(table, "sample")
                store.samples(table, 10)
        configuration = self.archive.device(1, stores)
        self.archive.ship("run", "--once", configuration)
        stores["a"].run("alter table T1 add column more text")
        stores["a"].run("alter table T2 rename column Value to Number")
        stores["a"].run("drop table T3")
        stores["b"].close()
        os.truncate(stores["b"].path, 0)
        stores["c"].samples("T1", 5)
        for _ in range(2):
            done = self.archive.ship("run", "--once", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            for name in ("a", "b"):
                self.assertIn(f"{name}.db: shipped until now, and gone or with other columns: T1, T2, T3", done.stderr)
            self.assertIn("gone", self.archive.sql("select trouble from fleet.device")[0][0])
            done = self.archive.ship("verify", configuration, check=False)
            self.assertEqual(done.returncode, 3, done.stderr)
            self.assertEqual(done.stdout.splitlines(),
                             [f"{name} T{i}: gone from the file, or with other columns there" for name in "ab"
                              for i in (1, 2, 3)] +
                             [f"c T{i}: {n} rows compared, all equal" for i, n in ((1, 15), (2, 10), (3, 10))])
        # For good; one of them comes back.
        self.archive.sql("update fleet.source set retired = true where file = 'b' or name > 'T1'")
        stores["a"].run("alter table T1 drop column more")
        self.archive.ship("run", "--once", configuration)
        self.archive.ship("verify", configuration)
        stores["a"].table("T3", "sample")
        stores["a"].samples("T3", 20)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select gen, wm from fleet.source join fleet.mark using (device, tbl) "
                                          "where (file, name) in (('a', 'T3'), ('c', 'T3')) order by file"),
                         [["2", "20"], ["1", "10"]])

    def test_a_device_can_do_nothing_else(self):
        stores = {1: self.store("h1"), 2: self.store("h2")}
        for number, store in stores.items():
            store.table("T1", "sample")
            store.table("AlarmData", "alarm")
            store.samples("T1", 10)
            store.add("AlarmData", [alarm(1)])
            self.archive.ship("run", "--once", self.archive.device(number, {"h": store}))
        dump = "select to_jsonb(t) from fleet.{} t order by 1::text"
        tables = ("sample", "alarm", "mark", "batch", "gap", "generation", "source", "alarm_was")
        before = {table: self.archive.sql(dump.format(table)) for table in tables}
        parts = {name: self.archive.sql(f"select to_char((now() at time zone 'UTC') + interval '{months} month', "
                                        "'_YYYY_MM')")[0][0] for months, name in enumerate(("{part}", "{later}"))}
        for statement, state in attacks.REFUSED:
            for name, part in parts.items():
                statement = statement.replace(name, part)
            with self.subTest(statement):
                with self.assertRaises(RuntimeError) as refused:
                    self.archive.sql(statement, "dev_1")
                answer = str(refused.exception).splitlines()[0]
                self.assertIn(f"{state}:", answer)
                if os.environ.get("DEVICE_FLEET_ANSWERS"):
                    print(f"{' '.join(statement.split())}\n    {answer.split(':  ')[-1]}")
        for statement, rows in attacks.WITHOUT_EFFECT:
            with self.subTest(statement):
                self.assertEqual(self.archive.sql(statement, "dev_1"), rows)
        self.assertEqual({table: self.archive.sql(dump.format(table)) for table in tables}, before)

    def two_devices(self):
        """The stores of devices 1 and 2, and their configurations, all shipped."""
        stores = [self.store(name) for name in ("h1", "h2")]
        configurations = [self.archive.device(i + 1, {"h": store}) for i, store in enumerate(stores)]
        for store, configuration in zip(stores, configurations):
            store.table("T1", "sample")
            store.samples("T1", 10)
            self.archive.ship("run", "--once", configuration)
        return stores, configurations

    def test_a_device_that_keeps_a_transaction_open_stops_no_other(self):
        stores, configurations = self.two_devices()
        to = ("--archive", self.cluster.conninfo(self.archive.name))
        # As at the beginning of a month.
        later = self.archive.sql("select to_char((now() at time zone 'UTC') + interval '2 months', '_YYYY_MM')")[0][0]
        for kind in ("sample", "alarm", "log"):
            self.archive.sql(f"drop table fleet.{kind}{later}")
        hostile = self.session("dev_1")
        hostile.run("set idle_in_transaction_session_timeout = 0; begin; select fleet.part();")
        stores[1].samples("T1", 5)
        for arguments in (("run", "--once", configurations[1]), ("status", *to), ("init", *to)):
            self.archive.ship(*arguments, timeout=20)
        self.check_file(2, stores[1], "h", "T1", "sample")
        hostile.run("rollback;")
        self.archive.ship("run", "--once", configurations[1])
        self.assertEqual(self.archive.sql(f"select count(to_regclass('fleet.sample{later}'))"), [["1"]])

    def test_a_device_that_holds_its_own_row_gets_another_password(self):
        self.archive.device(1, {})
        self.archive.device(2, {})
        hostile = self.session("dev_1")
        hostile.run("set idle_in_transaction_session_timeout = 0; begin; select fleet.hello('UTC');")
        to = ("--archive", self.cluster.conninfo(self.archive.name))
        secret = os.path.join(self.archive.folder, "password")
        self.archive.ship("add-device", "1", "--name", "Press 1", "--password-file", secret, *to, timeout=30)
        done = self.archive.ship("add-device", "1", "--name", "Oven", *to, check=False, timeout=30)
        self.assertIn("lock timeout", done.stderr)
        self.archive.ship("add-device", "2", "--name", "Oven", *to, timeout=20)

    def check_limits(self):
        for setting, value in (("statement_timeout", "5min"), ("idle_session_timeout", "5min"),
                               ("idle_in_transaction_session_timeout", "1min")):
            self.assertEqual(self.archive.sql(f"show {setting}", "dev_1"), [[value]])

    def test_a_connection_that_is_half_open_does_not_last(self):
        self.archive.device(1, {})
        self.check_limits()

    def test_what_a_device_did_to_its_role_ends_with_another_password(self):
        stores, configurations = self.two_devices()
        self.archive.sql("".join(statement.format(database=self.archive.name) + ";" for statement in attacks.LASTING),
                         "dev_1")
        self.assertEqual(self.archive.ship("run", "--once", configurations[0], check=False).returncode, 1)
        self.archive.sql("alter role dev_1 nologin")
        self.archive.device(1, {"h": stores[0]})
        stores[0].samples("T1", 5)
        self.archive.ship("run", "--once", configurations[0])
        self.check_file(1, stores[0], "h", "T1", "sample")
        self.check_limits()

    def test_what_a_device_writes_breaks_no_view(self):
        self.two_devices()
        to = ("--archive", self.cluster.conninfo(self.archive.name))
        self.archive.sql("select fleet.report('{1}', '{-9223372036854775808}', '')", "dev_1")
        self.assertEqual(self.archive.sql("select behind from fleet.status"), [["0"], ["0"]])
        self.archive.sql("select fleet.report('{1}', '{10}', E'\\x1b]0;title\\x07\\n3  Press 3\\u0085\\u202e')", "dev_1")
        lines = self.archive.ship("status", *to).stdout.splitlines()
        self.assertEqual(len(lines), 3)
        self.assertTrue(lines[1].endswith("  \u241b]0;title\u2407\u240a3  Press 3\ufffd\ufffd"), lines[1])

    def test_a_month_that_has_ended_takes_no_rows(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 12000)
        configuration = self.archive.device(1, {"h": store})
        # As if the month had ended after the shipper asked which one it is.
        self.archive.sql("create table fleet.sample_1999_01 partition of fleet.sample for values from ('1999-01-01') "
                         "to ('1999-02-01'); set search_path = fleet;"
                         "select let_devices_insert('sample_1999_01', 'sample'); create sequence asked;"
                         "alter function part() rename to real_part;"
                         "create function part() returns text language sql security definer as "
                         "$$ select case nextval('fleet.asked') when 2 then '_1999_01' else fleet.real_part() end $$")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select last_value > 2 from fleet.asked"), [["t"]])
        self.check_file(1, store, "h", "T1", "sample")
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (1, []))
        self.assertEqual(self.archive.sql("select count(*) from fleet.sample where odd is not null"), [["0"]])

    def test_verify_finds_and_repairs(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 9000)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = '1' where id = 5000; "
                         "delete from fleet.sample where id in (7, 8)")
        done = self.archive.ship("verify", configuration, check=False)
        self.assertEqual((done.returncode, done.stdout),
                         (3, "h T1: 9,000 rows compared, 1 row differs (ID 5000), 2 rows missing (ID 7, 8)\n"))
        self.assertEqual(len(self.archive.sql("select * from fleet.damaged_batches(1)")), 2)
        self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.check_file(1, store, "h", "T1", "sample")
        store.samples("T1", 10)
        store.table("T2", "sample")
        self.archive.ship("run", "--once", configuration)
        store.samples("T1", 20)
        store.samples("T2", 1)
        store.table("T3", "sample")
        store.samples("T3", 30)
        self.assertEqual(self.archive.ship("verify", configuration).stdout,
                         "h T1: 9,010 rows compared, all equal, 20 rows wait to be shipped\n"
                         "h T2: 0 rows compared, all equal, 1 row waits to be shipped\n"
                         "h T3: not known to the archive, 30 rows wait to be shipped\n")
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])
        self.assertIn("all equal", self.archive.ship("verify", configuration).stdout)

    def plans(self, log):
        """The statements in what auto_explain wrote, and how each reads this month's rows."""
        month = self.archive.sql("select fleet.part()")[0][0]

        def reads(node):
            if node.get("Relation Name", "").endswith(month) and node["Node Type"] != "ModifyTable":
                yield node.get("TID Cond") or node.get("Index Cond", node["Node Type"])
            for child in node.get("Plans", []):
                yield from reads(child)

        for part in log.split("plan:\n")[1:]:
            plan, _ = json.JSONDecoder().raw_decode(part.strip())
            yield plan["Query Text"], list(reads(plan["Plan"]))

    def test_rows_of_a_device_that_no_statistics_know_are_found_by_their_keys(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.table("AlarmData", "alarm")
        store.samples("T1", 1000)
        store.add("AlarmData", [alarm(i) for i in range(1000)])
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        for setting in ("session_preload_libraries = auto_explain", "auto_explain.log_min_duration = 0",
                        "auto_explain.log_nested_statements = on", "auto_explain.log_format = json"):
            self.archive.sql(f"alter role dev_1 set {setting}")
        with open(os.path.join(self.folder, "server.log"), encoding="utf-8", errors="replace") as log:
            log.seek(0, os.SEEK_END)
            store.run("update AlarmData set EndDate = '2024-05-06', EndTime = '08:00:00' where ID <= 500")
            store.run("delete from AlarmData where ID > 700")
            self.archive.ship("run", "--once", configuration)
            self.archive.sql("update fleet.sample set val = 'wrong' where id = 7; "
                             "update fleet.alarm set end_time = '09:00:00' where id = 8")
            self.archive.ship("verify", configuration, check=False)
            plans = list(self.plans(log.read()))
        for text in ("insert into alarm_was", "set gone = now()", "select digest(r) = asked", "select rest(r) = asked"):
            with self.subTest(text):
                found = [read for statement, each in plans if text in statement for read in each]
                self.assertTrue(found)
                for read in found:
                    self.assertRegex(read, r"ctid = |device = .*tbl = .*gen = .*id = ")

    def test_a_repaired_alarm_keeps_what_the_archive_knows_of_it(self):
        store = self.store("a")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i) for i in range(4)])
        configuration = self.archive.device(1, {"a": store})
        self.archive.ship("run", "--once", configuration)
        store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '08:00:00' where ID < 4")
        self.archive.ship("run", "--once", configuration)
        query = "select id, end_time, ended, object from fleet.alarm order by id"
        before = self.archive.sql(query)
        store.run("update AlarmData set EndDate = '', EndTime = '' where ID = 2")
        self.archive.sql("update fleet.alarm set object = 'damaged' where id = 1; delete from fleet.alarm where id = 3")
        done = self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.assertIn("1 row missing (ID 3), 3 put right", done.stdout)
        before[1] = ["2", "", None, "Pump 1"]
        before[2][2] = None
        self.assertEqual(self.archive.sql(query), before)
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])

    def test_a_repair_beside_a_batch_counts_its_rows(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 20)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = 'damaged' where id = 7")
        device = self.session("dev_1")
        device.run("begin; insert into fleet.sample (id, tbl, gen) select id, 1, 1 from generate_series(21, 30) id;")
        repair = subprocess.Popen([PROGRAM, "verify", configuration, "--repair-as",
                                   self.cluster.conninfo(self.archive.name)], stdout=subprocess.PIPE)
        self.until(lambda: self.archive.sql("select count(*) from pg_stat_activity where wait_event_type = 'Lock' and "
                                            "datname = current_database()") == [["1"]], "the repair waits")
        device.run("commit;")
        self.assertIn(b"1 put right", repair.communicate()[0])
        self.assertEqual(self.archive.sql("select id_from, id_to, n from fleet.batch"), [["1", "30", "30"]])
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])

    def test_verify_repairs_nothing_by_rows_of_another_life(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 3000)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        former = rows_of(store.path, "T1", "sample")
        repair = ("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.begin_anew(store, "T1")
        for rows in (2500, 500, 100):  # below, at and above the watermark
            store.samples("T1", rows, 5000)
            done = self.archive.ship(*repair, check=False)
            self.assertEqual((done.returncode, done.stdout),
                             (3, "h T1: the file is in another life of the table than the archive; let the shipper run "
                                 "first\n"))
            self.assertEqual(self.archive.rows(1, "h", "T1", "sample"),
                             {(1, key): row for key, row in former.items()})
        self.archive.ship("run", "--once", configuration)
        self.check(1, "h", "T1", "sample", {1: former, 2: rows_of(store.path, "T1", "sample")})
        # A copy of the file shares rows with the archive: what differs in those may be put right once it is judged.
        shutil.copy(store.path, store.path + ".copy")
        store.samples("T1", 500, 9000)
        self.archive.ship("run", "--once", configuration)
        second = rows_of(store.path, "T1", "sample")
        store = self.put_back("h", store, store.path + ".copy")
        store.samples("T1", 600, 20000)
        self.archive.sql("update fleet.sample set val = '1' where gen = 2 and id = 50")
        self.assertEqual(self.archive.ship(*repair, check=False).returncode, 3)
        self.assertEqual(self.archive.sql("select val from fleet.sample where gen = 2 and id = 50"), [["1"]])
        self.archive.sql(f"update fleet.sample set val = '{second[50][1]}' where gen = 2 and id = 50")
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = '1' where gen = 2 and id = 50")
        self.assertIn("1 row differs (ID 50), 1 put right", self.archive.ship(*repair).stdout)
        self.check(1, "h", "T1", "sample", {1: former, 2: second, 3: {
            key: row for key, row in rows_of(store.path, "T1", "sample").items() if key > 3100}})

    def test_verify_stores_no_rows_of_another_life_in_a_gap(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 40)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        former = rows_of(store.path, "T1", "sample")
        store.samples("T1", 60)
        store.run("delete from T1 where ID > 40")
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.gaps(1), [(1, 1, 41, 100)])
        self.begin_anew(store, "T1")
        store.samples("T1", 110, 5000)
        store.run("delete from T1 where ID < 60")
        done = self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name),
                                 check=False)
        self.assertEqual((done.returncode, done.stdout), (3, "h T1: the file is in another life of the table than the "
                                                             "archive; let the shipper run first\n"))
        self.archive.ship("run", "--once", configuration)
        self.check(1, "h", "T1", "sample", {1: former, 2: rows_of(store.path, "T1", "sample")})
        self.assertEqual(self.archive.generations(1), 2)

    def test_verify_leaves_what_the_archive_has_as_it_was_sent(self):
        store = self.store("h")
        store.table("T1", "sample")
        self.boot(store, 3000, "first")
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        before = self.archive.rows(1, "h", "T1", "sample")
        self.begin_anew(store, "T1")
        self.boot(store, 3000, "second")  # the newest row is equal by chance
        repair = ("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        done = self.archive.ship(*repair, check=False)
        self.assertEqual((done.returncode, done.stdout),
                         (3, "h T1: 3,000 rows compared, 2 rows differ (ID 7, 1234), 2 not put right; archive: the "
                             "archive has these rows as they were sent, and the file has others (P0001)\n"))
        self.assertEqual(self.archive.rows(1, "h", "T1", "sample"), before)

    def test_a_month_that_was_dropped_out_of_turn_is_put_right(self):
        store = self.store("h")
        for table in ("T1", "T2"):
            store.table(table, "sample")
            store.samples(table, 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("create table fleet.sample_2020_01 partition of fleet.sample for values from ('2020-01-01') "
                         "to ('2020-02-01'); update fleet.batch set received = '2020-02-05', received_to = '2020-02-05'"
                         " where tbl = 1; delete from fleet.sample where tbl = 1;"
                         "update fleet.sample set val = 'wrong' where tbl = 2 and id = 3")
        repair = ("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.assertEqual(self.archive.ship(*repair).stdout,
                         "h T1: 10 rows compared, 10 rows missing (ID 1, 2, 3, 4, 5 ...), 10 put right\n"
                         "h T2: 10 rows compared, 1 row differs (ID 3), 1 put right\n")
        for table in ("T1", "T2"):
            self.check_file(1, store, "h", table, "sample")
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])
        series = self.archive.sql("select id from fleet.series(1, 1::smallint, '2024-05-01', '2024-06-01')")
        self.assertEqual(len(series), 10)

    def test_a_repair_that_fails_does_not_stop_the_others(self):
        store = self.store("h")
        for table in ("T1", "T2"):
            store.table(table, "sample")
            store.samples(table, 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = 'wrong' where id = 3;"
                         "alter table fleet.sample add constraint mine check (tbl <> 1) not valid")
        done = self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name),
                                 check=False)
        self.assertEqual(done.returncode, 3, done.stderr)
        first, second = done.stdout.splitlines()
        self.assertIn("h T1: 10 rows compared, 1 row differs (ID 3), 1 not put right; archive: ", first)
        self.assertIn("mine", first)
        self.assertEqual(second, "h T2: 10 rows compared, 1 row differs (ID 3), 1 put right")

    def test_a_repair_of_a_copy_of_the_archive_is_none(self):
        server = Cluster(tempfile.mkdtemp(prefix="copied-", dir=self.folder), "fsync=off")
        self.addCleanup(server.stop)
        archive = Archive(server, PROGRAM, "copied")
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 5)
        configuration = archive.device(1, {"h": store})
        archive.ship("run", "--once", configuration)
        archive.sql("update fleet.sample set val = 'wrong' where id = 3")
        copy = server.copied(tempfile.mkdtemp(prefix="copy-", dir=self.folder))
        self.addCleanup(copy.stop)
        done = archive.ship("verify", configuration, "--repair-as", copy.conninfo("copied"), check=False)
        self.assertEqual((done.returncode, done.stdout),
                         (3, "h T1: 5 rows compared, 1 row differs (ID 3), 1 not put right\n"))

    def test_verify_repairs_no_other_archive(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 20)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.archive.sql("update fleet.sample set val = 'wrong' where id = 7")
        other = Archive(self.cluster, PROGRAM, self.archive.name + "_other")
        done = self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(other.name), check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("--repair-as names another archive", done.stderr)
        self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.check_file(1, store, "h", "T1", "sample")

    def test_a_role_that_may_do_more_becomes_no_device(self):
        add = ("add-device", "--archive", self.cluster.conninfo(self.archive.name))
        for number, role in enumerate(("superuser", "createrole", "bypassrls", "in role fleet_owner",
                                       "in role pg_read_all_data"), 900):
            self.archive.sql(f"create role dev_{number} login {role}")
            done = self.archive.ship(*add, str(number), check=False)
            self.archive.sql(f"drop role dev_{number}")
            self.assertEqual(done.returncode, 1, role)
            self.assertIn(f"dev_{number} exists and may do more than a device", done.stderr)
        for grant, what in (("grant select on fleet.sample to dev_900", "table fleet.sample"),
                            ("grant update (wm) on fleet.mark to dev_900", "table fleet.mark"),
                            ("grant execute on function fleet.kept_from to dev_900",
                             "function fleet.kept_from(text)"),
                            ("grant create on database {} to dev_900", "database {}"),
                            ("create schema authorization dev_900", "schema dev_900")):
            self.archive.sql(f"create role dev_900 login; {grant.format(self.archive.name)}")
            done = self.archive.ship(*add, "900", check=False)
            self.archive.sql("drop owned by dev_900; drop role dev_900")
            self.assertEqual(done.returncode, 1, grant)
            self.assertIn(f"dev_900 exists and may do more than a device with {what.format(self.archive.name)};",
                          done.stderr)
        self.archive.sql("create role dev_900 nologin")
        self.archive.ship(*add, "900")
        # What devices can do to each other keeps none from another password.
        self.archive.device(1, {})
        self.archive.sql("alter default privileges grant select on tables to dev_900; select lo_create(7);"
                         "alter default privileges for role dev_1 grant select on tables to dev_900;"
                         "grant select on large object 7 to dev_900")
        self.archive.ship(*add, "900")
        self.archive.ship(*add, "1")

    def test_verify_leaves_an_end_that_a_shipper_brings_beside_it(self):
        store = self.store("a", "wal")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(1), alarm(2), alarm(3)])
        configuration = self.archive.device(1, {"a": store})
        self.archive.ship("run", "--once", configuration)
        with self.owner() as owner:  # for whom verify waits after its look at the file
            owner("begin; lock table only fleet.alarm in access exclusive mode;")
            verify = subprocess.Popen([PROGRAM, "verify", configuration, "--repair-as",
                                       self.cluster.conninfo(self.archive.name)], stdout=subprocess.PIPE, text=True)
            waits = "select count(*) from pg_stat_activity where wait_event_type = 'Lock' and query ~ 'range_digest'"
            self.until(lambda: self.archive.sql(waits) == [["1"]], "verify has looked at the file")
            store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '08:00:00' where ID = 1")
            # As a shipper does that was there first.
            owner("update fleet.alarm set end_date = '2024/05/06', end_time = '08:00:00', ended = now() where id = 1;")
            owner("commit;")
            self.assertEqual(verify.communicate(timeout=DEADLINE)[0], "a AlarmData: 3 rows compared, all equal\n")
        self.assertEqual(self.archive.sql("select id, end_time from fleet.alarm order by id"),
                         [["1", "08:00:00"], ["2", ""], ["3", ""]])

        self.archive.sql("update fleet.alarm set object = 'damaged' where id = 2")
        with self.owner() as owner:  # for whom the repair waits
            owner("begin; select from fleet.alarm where id = 2 for update;")
            verify = subprocess.Popen([PROGRAM, "verify", configuration, "--repair-as",
                                       self.cluster.conninfo(self.archive.name)], stdout=subprocess.PIPE, text=True)
            waits = "select count(*) from pg_stat_activity where wait_event_type = 'Lock' and query ~ 'repair'"
            self.until(lambda: self.archive.sql(waits) == [["1"]], "verify repairs what it has read")
            store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '09:00:00' where ID = 2")
            owner("update fleet.alarm set end_date = '2024/05/06', end_time = '09:00:00', ended = now() where id = 2;"
                  "commit;")
            self.assertIn("1 row differs (ID 2), 1 put right", verify.communicate(timeout=DEADLINE)[0])
        self.check_file(1, store, "a", "AlarmData", "alarm")

    def drop_month(self):
        """The rows that are there, as if they had come in a month that the archive keeps no longer."""
        self.archive.sql("create table fleet.sample_2024_05 partition of fleet.sample for values from ('2024-05-01') "
                         "to ('2024-06-01'); update fleet.sample set day = '2024-05-06';"
                         "update fleet.batch set received = '2024-05-06', received_to = '2024-05-06';"
                         "drop table fleet.sample_2024_05")

    def test_verify_knows_what_the_archive_no_longer_keeps(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 5000)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.drop_month()
        store.samples("T1", 4000, 5000)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.ship("verify", configuration).stdout,
                         "h T1: 4,000 rows compared, all equal; 5,000 rows the archive no longer keeps\n")
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])
        self.archive.sql("delete from fleet.sample where id in (5001, 9000)")
        done = self.archive.ship("verify", configuration, check=False)
        self.assertEqual((done.returncode, done.stdout), (3, "h T1: 4,000 rows compared, 2 rows missing (ID 5001, "
                                                             "9000); 5,000 rows the archive no longer keeps\n"))
        self.assertEqual(len(self.archive.sql("select * from fleet.damaged_batches(1)")), 1)
        self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        kept = {(1, key): row for key, row in rows_of(store.path, "T1", "sample").items() if key > 5000}
        self.assertEqual(self.archive.rows(1, "h", "T1", "sample"), kept)
        self.assertEqual(self.archive.sql("select * from fleet.damaged_batches(1)"), [])

    def test_another_life_is_noticed_by_a_batch_that_the_archive_no_longer_keeps(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 100)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        self.drop_month()
        store.samples("T1", 10, 100)
        self.archive.ship("run", "--once", configuration)
        store.run("delete from T1 where ID <= 10")  # which proves nothing
        self.drop_month()
        store.samples("T1", 10, 110)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.generations(1), 1)
        self.drop_month()
        store.run("delete from T1")
        store.run("update sqlite_sequence SET seq = 0")
        store.samples("T1", 150, 5000)
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.rows(1, "h", "T1", "sample"),
                         {(2, key): row for key, row in rows_of(store.path, "T1", "sample").items()})
        self.assertEqual((self.archive.generations(1), self.archive.gaps(1)), (2, []))

    def test_verify_compares_numbers_and_ends(self):
        store = self.store("h")
        store.table("AlarmData", "alarm")
        store.add("AlarmData", [alarm(i, end_date="2024/05/06", end_time="08:00:00") for i in range(4)] + [alarm(5)])
        store.table("T1", "sample")
        store.samples("T1", 2500)
        for value in ("0", "-0", "1e300", "x", "", "4.9e-324", "12,5"):
            store.run("insert into T1(DATETIME, Value) values('2024-05-06 07:08:09', ?)", (value,))
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        store.run("update AlarmData set EndDate = '2024/05/06', EndTime = '09:00:00' where ID = 5")  # not shipped yet
        equal = "h AlarmData: 5 rows compared, all equal\nh T1: 2,507 rows compared, all equal\n"
        self.assertEqual(self.archive.ship("verify", configuration).stdout, equal)
        self.archive.sql("update fleet.alarm set end_time = '08:00:01' where id = 2;"
                         "update fleet.alarm set end_odd = '{}' where id = 3;"
                         "update fleet.sample set num = num + 1 where id in (7, 2400); "
                         "update fleet.sample set num = null where id = 8;"
                         "update fleet.sample set num = 0 where id = 2504")
        done = self.archive.ship("verify", configuration, check=False)
        self.assertEqual((done.returncode, done.stdout),
                         (3, "h AlarmData: 5 rows compared, 2 rows differ (ID 2, 3)\n"
                             "h T1: 2,507 rows compared, 4 rows differ (ID 7, 8, 2400, 2504)\n"))
        self.archive.ship("verify", configuration, "--repair-as", self.cluster.conninfo(self.archive.name))
        self.assertEqual(self.archive.ship("verify", configuration).stdout, equal)

    def test_what_is_shipped_is_stated_beside_the_file(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        self.archive.ship("run", "--once", self.archive.device(1, {"h": store}))
        with open(store.path + ".shipped", encoding="utf-8") as file:
            self.assertEqual(file.read(), '{"owner":"device-ship","shipped":{"T1":10},"version":1}')

    def test_what_is_stated_is_of_the_kind_that_the_table_is_now(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        for kind, rows, stated in (("alarm", [alarm(i) for i in range(500)], 500),
                                   ("sample", [("2024-05-06 07:08:09", "1")] * 20, 20)):
            store.run("drop table T1")
            store.table("T1", kind)
            store.add("T1", rows)
            self.archive.ship("run", "--once", configuration)
            with open(store.path + ".shipped", encoding="utf-8") as file:
                self.assertEqual(json.load(file)["shipped"], {"T1": stated})

    def test_nothing_is_stated_of_a_file_that_is_not_there(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.samples("T1", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        os.rename(store.path, store.path + ".away")
        os.remove(store.path + ".shipped")
        self.assertEqual(self.archive.ship("run", "--once", configuration, check=False).returncode, 3)
        self.assertFalse(os.path.exists(".shipped"))
        self.assertFalse(os.path.exists(store.path + ".shipped"))
        os.rename(store.path + ".away", store.path)
        self.archive.ship("run", "--once", configuration)
        self.assertTrue(os.path.exists(store.path + ".shipped"))

    def test_the_doubled_hour_is_told_apart_by_the_order_of_recording(self):
        store = self.store("h")
        store.table("T1", "sample")
        store.add("T1", [(f"2024-10-27 {text}", "1") for text in ("01:59:00", "02:10:00", "02:50:00", "02:10:00",
                                                                  "02:50:00", "03:00:00")])
        self.archive.ship("run", "--once", self.archive.device(1, {"h": store}))
        times = self.archive.sql("set timezone = 'UTC'; select to_char(utc, 'HH24:MI') from fleet.samples order by id")
        self.assertEqual(times, [["23:59"], ["00:10"], ["00:50"], ["01:10"], ["01:50"], ["02:00"]])

    def test_a_table_of_another_kind_takes_a_name(self):
        store = self.store("h")
        store.table("T", "sample")
        store.samples("T", 10)
        configuration = self.archive.device(1, {"h": store})
        self.archive.ship("run", "--once", configuration)
        store.run("drop table T")
        store.table("T", "log")
        store.add("T", [("2024-05-06 07:08:09.000", "a", "b", "c")])
        self.archive.ship("run", "--once", configuration)
        self.assertEqual(self.archive.sql("select tbl, kind, gen, wm from fleet.mark order by tbl"),
                         [["1", "sample", "1", "10"], ["2", "log", "1", "1"]])

    def test_the_server_s_certificate_is_verified(self):
        key, certificate = (os.path.join(self.archive.folder, name) for name in ("server.key", "server.crt"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
                        "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-keyout", key, "-out",
                        certificate], check=True, capture_output=True)
        server = Cluster(tempfile.mkdtemp(prefix="tls-", dir=self.folder), listens=(key, certificate))
        try:
            store = self.store("h")
            store.table("T1", "sample")
            store.samples("T1", 10)
            archive = Archive(server, PROGRAM, "tls")
            for host, settings, message in (
                    ("localhost", "", "root certificate file"),
                    ("127.0.0.1", f" sslrootcert={certificate}", "does not match host name"),
                    ("localhost", f" sslrootcert={certificate}", None)):
                configuration = archive.device(1, {"h": store}, f"{host} port={server.port}{settings}")
                done = archive.ship("run", "--once", configuration, check=False)
                self.assertIn(message or "", done.stderr)
                self.assertEqual(done.returncode, 1 if message else 0, done.stderr)
                self.assertNotIn("password", done.stderr)
            self.assertEqual(archive.sql("select count(*) from fleet.sample"), [["10"]])
        finally:
            server.stop()

    def test_a_server_without_tls_is_refused_however_it_is_named(self):
        configuration = self.archive.device(1, {"h": self.store("h")})
        with open(configuration, encoding="utf-8") as file:
            text = file.read().replace(f"host={self.cluster.folder}", "{}")
        services = os.path.join(self.archive.folder, "services")
        listener = socket.create_server(("127.0.0.1", 0))
        port = listener.getsockname()[1]
        asked = []

        def serve():
            while True:
                try:
                    connection, _ = listener.accept()
                except OSError:
                    return
                with connection:
                    connection.recv(100)  # libpq asks for TLS
                    connection.sendall(b"N")
                    asked.append(connection.recv(100))

        server = threading.Thread(target=serve)
        server.start()
        self.addCleanup(server.join)
        self.addCleanup(listener.shutdown, socket.SHUT_RDWR)
        for conninfo, environment, service, is_refused in (
                ("host=127.0.0.1", {}, "", True),
                ("host=/nowhere,127.0.0.1", {}, "", True),
                ("host=''", {"PGHOST": "127.0.0.1"}, "", True),
                ("", {"PGHOSTADDR": "127.0.0.1"}, "", True),
                ("service=there", {}, "host=127.0.0.1", True),
                ("", {"PGSERVICE": "there"}, "host=127.0.0.1", True),
                ("service=there", {}, "host=127.0.0.1\nsslmode=prefer", False),
                ("host=127.0.0.1", {"PGSSLMODE": "prefer"}, "", False),
                ("host=127.0.0.1 sslmode=prefer", {}, "", False)):
            with self.subTest(conninfo=conninfo, environment=environment, service=service):
                with open(configuration, "w", encoding="utf-8") as file:
                    file.write(text.format(f"{conninfo} port={port} gssencmode=disable"))
                with open(services, "w", encoding="utf-8") as file:
                    file.write(f"[there]\n{service}\n")
                asked.clear()
                done = subprocess.run([PROGRAM, "run", "--once", configuration], capture_output=True, text=True,
                                      check=False, env={**os.environ, "PGSERVICEFILE": services, **environment})
                self.assertEqual(done.returncode, 1)
                self.assertEqual("SSL was required" in done.stderr, is_refused, done.stderr)
                self.until(lambda: asked, "the end of the connection")
                self.assertEqual(asked[0] == b"", is_refused)

    def test_wrong_configurations_are_named(self):
        path = os.path.join(self.archive.folder, "wrong.conf")
        zero = os.path.join(self.archive.folder, "zero")
        with open(zero, "wb") as file:
            file.write(b"a\0b\n")
        good = {"archive/conninfo": "host=/nowhere dbname=x", "device/number": "1", "device/zone": "UTC",
                "files/h": "/nowhere.db"}
        for key, value, message in (
                ("archive/conninfo", "host=/nowhere password=secret", "has a password"),
                ("archive/conninfo", "host=/nowhere user=other", "the role of device 1 is dev_1"),
                ("archive/conninfo", "nonsense", "cannot be read"), ("device/number", "seven", "device/number"),
                ("device/zone", "", "device/zone"), ("archive/password-file", "/no\x1bwhere", "/no\u241bwhere"),
                ("archive/password-file", "/tmp", "s a directory"), ("archive/password-file", zero, "a zero byte"),
                ("device/zone", "UTC", "No such file or directory")):
            with self.subTest(message):
                with open(path, "w", encoding="utf-8") as file:
                    for name, text in {**good, key: value}.items():
                        group, item = name.split("/")
                        file.write(f"[{group}]\n{item}={text}\n")
                done = self.archive.ship("run", "--once", path, check=False)
                self.assertEqual(done.returncode, 1)
                self.assertIn(message, done.stderr)
                self.assertNotIn("secret", done.stderr)

    def test_a_configuration_is_taken_as_it_is_written(self):
        odd = os.path.join(self.archive.folder, 'a ; b " c \\ d, e = #f')
        os.mkdir(odd)
        stores = {name: self.store(os.path.join(odd, name.replace("/", "-")))
                  for name in ("line1/history", "h 2 \u00b5")}
        for store in stores.values():
            store.table("T1", "sample")
            store.samples("T1", 10)
        self.archive.ship("run", "--once", self.archive.device(1, stores))
        for name, store in stores.items():
            self.check_file(1, store, name, "T1", "sample")

    def test_what_a_configuration_must_not_have(self):
        path = os.path.join(self.archive.folder, "wrong.conf")
        good = ("[archive]\nconninfo=host=/nowhere dbname=x\n# and\n\n[device]\nnumber=1\nzone=UTC\n"
                "[files]\nh=/h.db\n")
        os.symlink(path, path + ".link")
        for more, message in (
                ("h=/other.db", "line 10: files/h is there twice"),
                ("[device]\nnumber=2", "device/number is there twice"),
                ("[archive]\npasswordfile=/x", "line 11: there is no passwordfile in [archive]"),
                ("[file]\nx=/x.db", "line 10: there is no section [file]"),
                ("just words", "line 10: it is not in the INI"),
                ("g=", "files/g names no file"), ("g=/h.db", "files/h and files/g are one file"),
                (f"g={path}\nf={path}.link", "files/g and files/f are one file"), ("g=\udcff", "not a text in UTF-8")):
            with self.subTest(more):
                with open(path, "w", encoding="utf-8", errors="surrogateescape") as file:
                    file.write(good + more + "\n")
                done = self.archive.ship("run", "--once", path, check=False)
                self.assertEqual(done.returncode, 1)
                self.assertIn(message, done.stderr)
        for number in ("4294967313", "99999999999", "017", "0x11", "-1", "+1", "1.0", ""):
            with self.subTest(number):
                with open(path, "w", encoding="utf-8") as file:
                    file.write(good.replace("number=1", f"number={number}"))
                self.assertIn("device/number is missing or not", self.archive.ship("run", "--once", path,
                                                                                  check=False).stderr)
                done = self.archive.ship("add-device", f"{number}", "--archive",
                                         self.cluster.conninfo(self.archive.name), check=False)
                self.assertEqual(done.returncode, 2, done.stderr)
        self.assertEqual(self.archive.sql("select * from fleet.device"), [])

    def test_zones_are_names(self):
        store = self.store("h")
        configuration = self.archive.device(1, {"h": store})
        with open(configuration, encoding="utf-8") as file:
            good = file.read()
        for zone, taken in (("UTC+3", False), ("FOO-99", False), ("localtime", False), ("CET-1CEST", False),
                            ("Etc/GMT+3", True), ("UTC", True), ("Europe/Berlin", True), ("UTC+3", False)):
            with self.subTest(zone):
                with open(configuration, "w", encoding="utf-8") as file:
                    file.write(good.replace("zone=Europe/Berlin", f"zone={zone}"))
                done = self.archive.ship("run", "--once", configuration, check=False)
                self.assertEqual(done.returncode, 0 if taken else 1)
                self.assertIn("" if taken else f'time zone "{zone}" not recognized', done.stderr)

    def test_a_device_keeps_its_name(self):
        self.archive.device(1, {})  # with a name
        to = ("--archive", self.cluster.conninfo(self.archive.name))
        name = "select name from fleet.device"
        self.archive.ship("add-device", "1", *to)
        self.assertEqual(self.archive.sql(name), [["Press 1"]])
        self.archive.ship("add-device", "1", "--name", "Oven", *to)
        self.assertEqual(self.archive.sql(name), [["Oven"]])

    def test_an_archive_is_made_once_by_many(self):
        to = ("--archive", self.cluster.conninfo("made_by_many"))
        self.cluster.sql("postgres", "create database made_by_many")
        for arguments in (("init", *to), ("add-device", "1", "--name", "Press", *to)):
            at_once = [subprocess.Popen([PROGRAM, *arguments], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
                       for _ in range(6)]
            self.assertEqual([each.communicate()[1] for each in at_once], [b""] * 6)
        self.assertEqual(self.cluster.sql("made_by_many", "select name from fleet.device"), [["Press"]])

    def test_who_is_no_superuser_is_told_what_one_has_to_revoke(self):
        server = Cluster(tempfile.mkdtemp(prefix="plain-", dir=self.folder), "fsync=off")
        self.addCleanup(server.stop)
        quoted = "'" + PASSWORD.replace("'", "''") + "'"
        server.sql("postgres", f"create role plain login createrole password {quoted}; "
                               "create database plain owner plain")
        to = ("--archive", server.conninfo("plain").replace("user=owner", "user=plain"))
        environment = {**os.environ, "PGPASSWORD": PASSWORD}
        secret = os.path.join(self.archive.folder, "secret")
        with open(secret, "w", encoding="utf-8") as file:
            file.write(PASSWORD)
        said = [subprocess.run([PROGRAM, *arguments, *to], env=environment, capture_output=True, text=True,
                               check=True).stderr
                for arguments in (["init"], ["init"], ["add-device", "1", "--password-file", secret])]
        self.assertIn("a device can fill the disk with large objects until a superuser runs in this database: revoke",
                      said[0])
        self.assertEqual(said[1:], [said[0], ""])
        large = [statement for statement, _ in attacks.REFUSED if statement.startswith("select lo_")]
        for statement in large:
            server.sql("plain", f"begin; {statement}; rollback", "dev_1")
        server.sql("plain", said[0].split("database: ")[1])
        for statement in large:
            with self.assertRaisesRegex(RuntimeError, "42501"):
                server.sql("plain", statement, "dev_1")

    def test_archives_of_one_server_are_made_at_once(self):
        server = Cluster(tempfile.mkdtemp(prefix="many-", dir=self.folder))
        self.addCleanup(server.stop)
        names = [f"many{i}" for i in range(4)]
        for name in names:
            server.sql("postgres", f"create database {name}")
        at_once = [subprocess.Popen([PROGRAM, "init", "--archive", server.conninfo(name)], stdout=subprocess.DEVNULL,
                                    stderr=subprocess.PIPE) for name in names]
        self.assertEqual([each.communicate()[1] for each in at_once], [b""] * len(names))


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    skip_without_server()
    unittest.main(warnings="ignore")
