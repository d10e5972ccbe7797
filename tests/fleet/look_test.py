#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""device-db looks at a fleet as at a file.

    look_test.py DEVICE_SHIP DEVICE_DB [unittest's arguments]
"""
import csv
import io
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

from cluster import PASSWORD, Archive, Cluster, File, skip_without_server

SHIP = DB = ""
NAMES = {1: "Press 1", 2: "Press 2", 3: "Oven"}


def alarm(level, start, what, end=("", "")):
    return (level, start, what, "High", "87.5", "80", "\u00c2\u00b0 above limit", *end)


class Look(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="look-", dir="/tmp")
        cls.cluster = Cluster(cls.folder, "shared_buffers=32MB", "max_connections=20")
        cls.archive = Archive(cls.cluster, SHIP, "plant")
        cls.stores = {}
        for number, name in NAMES.items():
            history = cls.stores[number] = File(os.path.join(cls.archive.folder, f"h{number}.db"))
            alarms = File(os.path.join(cls.archive.folder, f"a{number}.db"))
            history.table("T1", "sample", "Boiler")
            history.add("T1", [(f"2024-05-06 07:{minute:02}:00", f"{number}{minute:02}.5") for minute in range(30)])
            if number == 1:
                history.table("T2", "sample")
                history.run("insert into T2 values(NULL, 'now', 'ON'), (NULL, '2024-05-06 08:00:00', 7),"
                            "(NULL, NULL, x'00ff'), (NULL, '2024-10-27 02:30:00', '80'),"
                            "(NULL, '2024-03-31 02:30:00', '81')")
            alarms.table("AlarmData", "alarm")
            alarms.add("AlarmData", [alarm(3, f"2024-05-06 0{number}:00:00", f"Pump {number}"),
                                     alarm(1, f"2024-05-07 0{number}:00:00", "J\u00fcrgens Ventil",
                                           ("2024/05/07", "04:00:00"))])
            if number == 3:
                alarms.table("OperatorLog", "log")
                alarms.add("OperatorLog", [("2024-05-06 07:08:09.120", "J\u00fcrgen", "Set", "85")])
            configuration = cls.archive.device(number, {"history": history, "alarms": alarms})
            cls.archive.sql(f"update fleet.device set name = '{name}' where device = {number}")
            if number == 3:  # a clock of another zone
                with open(configuration, encoding="utf-8") as file:
                    text = file.read().replace("Europe/Berlin", "America/New_York")
                with open(configuration, "w", encoding="utf-8") as file:
                    file.write(text)
            cls.archive.ship("run", "--once", configuration)
            if number == 2:
                alarms.run("delete from AlarmData where ID = 1")  # while it is active
                cls.archive.ship("run", "--once", configuration)
        cls.archive.sql("create role viewer login password 'seen' in role fleet_reader")
        cls.secret = os.path.join(cls.folder, "pgpass")
        with open(cls.secret, "w", encoding="utf-8") as file:
            file.write("*:*:*:viewer:seen\n")
        os.chmod(cls.secret, 0o600)
        cls.address = f"postgresql://viewer@/plant?host={cls.folder}"

    @classmethod
    def tearDownClass(cls):
        cls.cluster.stop()
        shutil.rmtree(cls.folder)

    def run_db(self, command, *arguments, address=None, **environment):
        return subprocess.run([DB, command, address or self.address, *arguments], capture_output=True, check=False,
                              encoding="utf-8", errors="surrogateescape",
                              env={**os.environ, "TZ": "Europe/Berlin", "PGPASSFILE": self.secret, **environment})

    def look(self, command, *arguments):
        done = self.run_db(command, *arguments, "--csv")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return list(csv.reader(io.StringIO(done.stdout)))

    def refused(self, message, command, *arguments, code=1, **others):
        done = self.run_db(command, *arguments, **others)
        self.assertEqual((done.returncode, done.stdout), (code, ""), done.stderr)
        self.assertIn(message, done.stderr)
        return done.stderr

    def test_the_newest_rows_of_all_devices(self):
        self.assertEqual(self.look("newest", "T1", "-n", "4"),
                         [["device", "time", "value"], ["Press 1", "2024-05-06 07:29:00", "129.5"],
                          ["Press 2", "2024-05-06 07:29:00", "229.5"], ["Oven", "2024-05-06 07:29:00", "329.5"],
                          ["Press 1", "2024-05-06 07:28:00", "128.5"]])
        self.assertEqual(len(self.look("newest", "T1", "-n", "1000")), 91)
        self.assertEqual(self.look("newest", "T1", "-n", "0"), [["device", "time", "value"]])

    def test_rows_without_a_time_come_after_the_others_as_they_are(self):
        done = self.run_db("newest", "T2", "--id", "--json", "-n", "5")
        rows = [json.loads(line) for line in done.stdout.splitlines()]
        self.assertEqual([(row["id"], row["time"]) for row in rows],
                         [(4, "2024-10-27 02:30:00"), (2, "2024-05-06 08:00:00"), (5, "2024-03-31 02:30:00"),
                          (3, None), (1, "now")])
        of_file = self.run_db("show", "T2", "--id", "--csv", address=os.path.join(self.archive.folder, "h1.db"))
        of_fleet = self.run_db("newest", "T2", "--id", "--csv")
        self.assertEqual(sorted(line.split(",", 1)[1] for line in of_fleet.stdout.splitlines()[1:]),
                         sorted(of_file.stdout.splitlines()[1:]))

    def test_a_range_of_chosen_devices(self):
        rows = self.look("range", "2024-05-06 07:10", "2024-05-06 07:11", "T1", "--device", "press 2", "--device", "3")
        self.assertEqual(rows[1:], [["Press 2", "2024-05-06 07:10:00", "210.5"],
                                    ["Oven", "2024-05-06 07:10:00", "310.5"],
                                    ["Press 2", "2024-05-06 07:11:00", "211.5"],
                                    ["Oven", "2024-05-06 07:11:00", "311.5"]])
        # An instant is another hour of each clock.
        self.assertEqual(self.look("range", "2024-05-06 05:10Z", "2024-05-06 05:10Z", "T1")[1:],
                         [["Press 1", "2024-05-06 07:10:00", "110.5"], ["Press 2", "2024-05-06 07:10:00", "210.5"]])

    def test_times_in_utc_are_those_of_each_device_s_zone(self):
        rows = self.look("range", "2024-05-06 05:10", "2024-05-06 11:10", "T1", "--utc")
        self.assertEqual(len(rows), 1 + 20 + 20 + 11)
        self.assertEqual(rows[1], ["Press 1", "2024-05-06 05:10:00", "110.5"])
        self.assertEqual(rows[-1], ["Oven", "2024-05-06 11:10:00", "310.5"])
        self.assertEqual([row[1] for row in self.look("newest", "T2", "--utc")[1:4]],
                         ["2024-10-27 00:30:00", "2024-05-06 06:00:00", "2024-03-31 02:30:00 local"])
        ends = self.look("newest", "AlarmData", "--ended", "--utc", "--device", "Oven")
        self.assertEqual(ends[1][-2:], ["2024-05-07", "08:00:00"])
        self.assertEqual(self.look("newest", "T1", "-n", "1", "--utc")[1][0], "Oven")

    def test_searching(self):
        rows = self.look("find", "j\u00dcRGENS", "AlarmData")
        self.assertEqual([row[0] for row in rows[1:]], ["Press 1", "Press 2", "Oven"])
        self.assertEqual(rows[1][7], "\u00b0 above limit")
        self.assertEqual(len(self.look("find", "07:1", "T1", "--device", "2")[1:]), 10)
        self.assertEqual(self.look("find", "date", "T2"), [["device", "time", "value"]])
        self.assertEqual(len(self.look("newest", "T1", "--value", ">=228.5", "--value", "<300")[1:]), 2)
        self.assertEqual(len(self.look("newest", "T2", "--value", "=ON")[1:]), 1)
        self.assertEqual([row[0] for row in self.look("newest", "--active")[1:]], ["Oven", "Press 1"])
        self.assertEqual(len(self.look("newest", "--level", "1", "--object", "J\u00fcrgens Ventil")[1:]), 3)
        self.assertEqual(self.look("newest", "--user", "J\u00fcrgen")[1:],
                         [["Oven", "2024-05-06 07:08:09.120", "J\u00fcrgen", "Set", "85"]])
        self.assertEqual(len(self.look("range", "2024-05-07", "2024-05-07 02:00", "alarms/AlarmData")[1:]), 2)

    def test_counting(self):
        self.assertEqual(self.look("count"),
                         [["device", "table", "kind", "rows"], ["Press 1", "AlarmData", "alarms", "2"],
                          ["Press 1", "T1", "samples", "30"], ["Press 1", "T2", "samples", "5"],
                          ["Press 2", "AlarmData", "alarms", "2"], ["Press 2", "T1", "samples", "30"],
                          ["Oven", "AlarmData", "alarms", "2"], ["Oven", "OperatorLog", "log", "1"],
                          ["Oven", "T1", "samples", "30"]])
        self.assertEqual(self.look("count", "T1", "--from", "2024-05-06 07:20", "--device", "Oven")[1:],
                         [["Oven", "T1", "samples", "10"]])
        self.assertEqual(self.look("count", "T2", "--per", "hour")[1:],
                         [["Press 1", "T2", "samples", period, "1"] for period in
                          ("", "2024-03-31 02", "2024-05-06 08", "2024-10-27 02", "now")])
        self.assertEqual(self.look("count", "T1", "--per", "hour", "--utc")[1:],
                         [["Press 1", "T1", "samples", "2024-05-06 05", "30"],
                          ["Press 2", "T1", "samples", "2024-05-06 05", "30"],
                          ["Oven", "T1", "samples", "2024-05-06 11", "30"]])
        self.assertEqual(self.look("count", "--value", ">0", "--per", "month", "--device", "3")[1:],
                         [["Oven", "T1", "samples", "2024-05", "30"]])
        self.assertIn("Press 1  T1", self.run_db("count").stdout)

    def test_what_cannot_work_is_refused_by_name(self):
        self.refused("--lock: a fleet has no file to lock; leave it out", "newest", "T1", "--lock", code=2)
        self.refused("--device: a file is of one device", "newest", "T1", "--device", "1",
                     address=os.path.join(self.archive.folder, "h1.db"), code=2)
        for command in ("info", "show", "tail", "export", "stats", "check"):
            self.refused("newest, range, find and count take a fleet", command, code=2)
        self.refused("there is no device Pres; it has Press 1, Press 2", "newest", "T1", "--device", "Pres")
        self.refused("there is no table T9; it has AlarmData, OperatorLog, T1, T2", "newest", "T9")
        self.refused("name one of its tables: T1, T2", "newest", "--value", ">1")
        self.refused("table T1 is of another kind", "newest", "T1", "--active")
        self.refused("give a comparison", "newest", "T1", "--value", "high")
        self.refused("not a time", "range", "soon", "now", "T1")
        error = self.refused("a password on a command line is seen by everybody", "newest", "T1",
                             address=f"postgresql://viewer:seen@/plant?host={self.folder}")
        self.assertNotIn("seen@", error)
        error = self.refused("a password on a command line is seen by everybody", "newest", "T1",
                             address=f"{self.address}&password=seen")
        self.assertNotIn("=seen", error)

    def test_errors_name_the_archive(self):
        nowhere = f"postgresql://viewer@/nowhere?host={self.folder}"
        self.assertIn(nowhere, self.refused("does not exist", "newest", "T1", address=nowhere))
        empty = f"postgres://viewer@/postgres?host={self.folder}"
        self.assertIn(empty, self.refused("it is no archive of a fleet", "count", address=empty))
        device = f"postgresql://dev_1@/plant?host={self.folder}"
        with open(self.secret + "1", "w", encoding="utf-8") as file:
            file.write("*:*:*:dev_1:" + PASSWORD.replace("\\", "\\\\") + "\n")
        os.chmod(self.secret + "1", 0o600)
        self.refused("the role fleet_reader is for who looks", "count", address=device, PGPASSFILE=self.secret + "1")

    def test_a_service_file_names_the_archive(self):
        with open(os.path.join(self.folder, "services"), "w", encoding="utf-8") as file:
            file.write(f"[plant]\nhost={self.folder}\ndbname=plant\nuser=viewer\n")
        done = self.run_db("count", "T1", "--csv", address="postgresql://?service=plant",
                           PGSERVICEFILE=os.path.join(self.folder, "services"))
        self.assertEqual(done.stdout.count("30"), 3, done.stderr)

    def test_names_that_several_have(self):
        self.archive.sql("update fleet.device set name = 'Press 1' where device = 2")
        try:
            self.assertEqual({row[0] for row in self.look("count", "T1")[1:]}, {"1", "2", "Oven"})
            self.refused("several devices have the name Press 1; give the number", "count", "--device", "Press 1")
        finally:
            self.archive.sql("update fleet.device set name = 'Press 2' where device = 2")


if __name__ == "__main__":
    SHIP, DB = sys.argv.pop(1), sys.argv.pop(1)
    skip_without_server()
    unittest.main(warnings="ignore")
