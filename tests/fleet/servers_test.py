#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Several archives, each with a range of device numbers, and a server from which all are looked at.

    servers_test.py DEVICE_SHIP [unittest's arguments]
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

from cluster import PASSWORD, Archive, Cluster, File, skip_without_server

SHIP = ""
LOOKING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "apps", "device-ship", "archive",
                       "looking.sql")
RANGES = {"north": (1, 999), "middle": (1000, 1999), "south": (2000, 2999), "east": (3000, 2147483647)}


class Servers(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="servers-", dir="/tmp")
        os.chmod(self.folder, 0o755)
        self.clusters, self.archives, self.stores, self.configurations = {}, {}, {}, {}
        self.looking = self.cluster("looking")
        self.looking.sql("postgres", "create database looking")
        quoted = PASSWORD.replace("'", "''")
        self.looking.sql("postgres", f"create role fleet_reader; create role viewer login password '{quoted}' "
                                     "in role fleet_reader")

    def tearDown(self):
        for store in self.stores.values():
            store.close()
        for cluster in self.clusters.values():
            subprocess.run([*cluster.user, os.path.join(cluster.programs, "pg_ctl"), "-D", cluster.data, "-m",
                            "immediate", "stop"], capture_output=True, check=False, cwd="/")
        shutil.rmtree(self.folder)

    def cluster(self, name):
        folder = os.path.join(self.folder, name)
        os.mkdir(folder)
        self.clusters[name] = Cluster(folder, "shared_buffers=16MB", "max_connections=20")
        return self.clusters[name]

    def add_server(self, name):
        archive = self.archives[name] = Archive(self.cluster(name), SHIP, "fleet")
        first, last = RANGES[name]
        archive.sql(f"alter table fleet.device add check (device between {first} and {last});"
                    "create role looking login password 'seen' in role fleet_reader")
        done = subprocess.run(
            [os.path.join(self.looking.programs, "psql"), "-X", "-q", "-h", self.looking.folder, "-U", "owner", "-d",
             "looking", "-v", f"name={name}", "-v", f"first={first}", "-v", f"last={last}", "-v",
             f"options=host '{archive.cluster.folder}', dbname 'fleet'", "-f", LOOKING],
            capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        for person in ("owner", "viewer"):
            self.look(f"create user mapping for {person} server {name} options (user 'looking', password 'seen')")

    def add_device(self, name, number):
        store = self.stores[number] = File(os.path.join(self.folder, f"{number}.db"))
        store.table("T1", "sample")
        store.samples("T1", 500)
        self.configurations[number] = self.archives[name].device(number, {"history": store})

    def ship(self, number, **options):
        return next(iter(self.archives.values())).ship("run", "--once", self.configurations[number], **options)

    def look(self, statement):
        return self.looking.sql("looking", statement)

    def test_three_servers_one_of_which_stops_and_a_fourth(self):
        for name in ("north", "middle", "south"):
            self.add_server(name)
        for name, number in (("north", 1), ("north", 2), ("middle", 1001), ("south", 2001)):
            self.add_device(name, number)
            self.ship(number)
        by_device = "select device, count(*), max(num) < 100 from fleet.sample group by device order by device"
        self.assertEqual(self.look(by_device), [[str(number), "500", "t"] for number in (1, 2, 1001, 2001)])
        self.assertEqual(self.looking.sql("looking", "select count(*) from fleet.device", "viewer"), [["4"]])
        plan = [row[0].strip() for row in self.look("explain (verbose, costs off) " + by_device)]
        self.assertEqual([line for line in plan if line.startswith("Relations:")],
                         [f"Relations: Aggregate on (fleet.sample_{name} sample{place})"
                          for place, name in (("", "north"), ("_1", "middle"), ("_2", "south"))], plan)
        plan = [row[0].strip() for row in self.look("explain (verbose, costs off) select num from fleet.sample where "
                                                    "device = 1001 and dt > '2024-05-01 00:01:00' order by dt")]
        remote = [line for line in plan if line.startswith("Remote SQL:")]
        self.assertEqual(len(remote), 1, plan)
        self.assertRegex(remote[0], r"WHERE .*\(dt > .*\(device = 1001\)")
        # A device belongs to one server.
        self.assertIn("device_device_check", self.archives["middle"].ship(
            "add-device", "5", "--archive", self.clusters["middle"].conninfo("fleet"), check=False).stderr)
        with self.assertRaisesRegex(RuntimeError, "permission denied"):
            self.looking.sql("looking", "insert into fleet.sample (device) values (1)", "viewer")

        self.clusters["middle"].stop()
        for number in (1, 2, 2001):
            self.stores[number].samples("T1", 100)
            self.ship(number)
        self.stores[1001].samples("T1", 100)
        self.assertNotEqual(self.ship(1001, check=False).returncode, 0)
        with self.assertRaisesRegex(RuntimeError, 'could not connect to server "middle"'):
            self.look(by_device)
        self.assertEqual(self.look("select * from fleet.server where name = 'middle'"), [["middle", "1000", "1999"]])
        self.assertEqual(self.look(by_device.replace("group", "where device < 1000 or device >= 2000 group")),
                         [[str(number), "600", "t"] for number in (1, 2, 2001)])

        # Where each row lies, and by which transaction.
        places = ("select count(*), md5(string_agg(concat(tableoid, ctid, xmin, xmax), ',' order by tableoid, ctid)) "
                  "from ")
        before = {name: [self.archives[name].sql(places + f"fleet.{table}") for table in ("sample", "batch", "mark")]
                  for name in ("north", "south")}
        self.add_server("east")
        self.add_device("east", 3001)
        self.ship(3001)
        self.assertEqual(before, {name: [self.archives[name].sql(places + f"fleet.{table}")
                                         for table in ("sample", "batch", "mark")] for name in before})
        self.clusters["middle"].start()
        self.ship(1001)
        # A connection that broke is made anew by the next question.
        self.assertEqual(self.look(by_device), [["1", "600", "t"], ["2", "600", "t"], ["1001", "600", "t"],
                                                ["2001", "600", "t"], ["3001", "500", "t"]])


if __name__ == "__main__":
    SHIP = sys.argv.pop(1)
    skip_without_server()
    unittest.main(warnings="ignore")
