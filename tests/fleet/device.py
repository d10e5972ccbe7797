#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""A device that commits and rolls back until it is killed, as the library's file is made: no waiting for locks.

    device.py FILE TABLE COMMITS-PER-SECOND

Says "." for a commit, "r" for a rollback, "x" for a statement that failed.
"""
import os
import random
import sqlite3
import sys
import time

from cluster import File

WIDE = "0" * 1000  # more than its cache holds, so that the file is written before the commit


def main():
    path, table, per_second = sys.argv[1], sys.argv[2], float(sys.argv[3])
    store = File(path)
    store.run("pragma cache_size=2")
    at = time.monotonic()
    while True:
        at += 1 / per_second
        time.sleep(max(0, at - time.monotonic()))
        what = b"."
        try:
            store.run("begin immediate")
            wide = WIDE if random.random() < 0.2 else ""
            for _ in range(4):
                store.run(f"insert into '{table}' values(NULL,'2024-05-06 07:08:09',?)", (repr(random.random()) + wide,))
            if wide:
                time.sleep(0.003)  # a slow disk: half a transaction is in the file for a while
            if random.random() < 0.1:
                what = b"r"
            store.run("rollback" if what == b"r" else "commit")
        except sqlite3.Error:
            what = b"x"
            if store.connection.in_transaction:
                store.run("rollback")
        os.write(1, what)


if __name__ == "__main__":
    main()
