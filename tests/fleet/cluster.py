# SPDX-License-Identifier: MIT
"""A private PostgreSQL server in a temporary folder, on a Unix socket; devices with files; and what is in both.

Nothing here is the shipper's: files are read with sqlite3, the archive with psql.
"""
import copy
import glob
import json
import os
import pwd
import random
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
from urllib.parse import quote

SKIPPED = 77
PASSWORD = "a password with 'quotes' and \\"


def server_programs():
    """The folder of the newest installed server's programs, or None."""
    found = glob.glob("/usr/lib/postgresql/*/bin/initdb")
    if not found and shutil.which("initdb"):
        found = [os.path.realpath(shutil.which("initdb"))]
    return os.path.dirname(max(found, key=lambda path: [int(part) for part in path.split("/") if part.isdigit()],
                               default="")) or None


def skip_without_server():
    if not server_programs():
        print("skipped: no PostgreSQL server is installed (Debian: postgresql)")
        sys.exit(SKIPPED)


class Cluster:
    """As another user than root, which initdb refuses."""

    def __init__(self, folder, *settings, listens=None):
        """listens: the files of a key and a certificate, to listen on the network of this machine."""
        self.folder = folder
        self.data = os.path.join(folder, "data")
        self.programs = server_programs()
        self.settings = settings
        self.user = []
        if os.getuid() == 0:
            user = "postgres" if any(entry.pw_name == "postgres" for entry in pwd.getpwall()) else "nobody"
            self.user = ["runuser", "-u", user, "--"]
            os.chmod(folder, 0o755)
            shutil.chown(folder, user)
        self.run("initdb", "-D", self.data, "-U", "owner", "-E", "UTF8", "--locale=C.UTF-8", "-A", "trust", "--no-sync")
        with open(os.path.join(self.data, "pg_hba.conf"), "w", encoding="utf-8") as hba:
            hba.write("local all owner trust\nlocal all all scram-sha-256\n"
                      "hostssl all all localhost scram-sha-256\n")
        self.port = 5432
        if listens:
            with socket.socket() as free:
                free.bind(("127.0.0.1", 0))
                self.port = free.getsockname()[1]
            for name, file in zip(("server.key", "server.crt"), listens):
                shutil.copy(file, os.path.join(self.data, name))
                if self.user:
                    shutil.chown(os.path.join(self.data, name), user)
                os.chmod(os.path.join(self.data, name), 0o600)
            self.settings += ("listen_addresses=localhost", f"port={self.port}", "ssl=on")
        self.start()

    def run(self, program, *arguments):
        return subprocess.run([*self.user, os.path.join(self.programs, program), *arguments], check=True, cwd="/",
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)

    def start(self):
        settings = ("listen_addresses=''", f"unix_socket_directories={self.folder}", *self.settings)
        options = " ".join(f"-c {setting}" for setting in settings)
        self.run("pg_ctl", "-D", self.data, "-l", os.path.join(self.folder, "server.log"), "-w", "-t", "300", "-o",
                 options, "start")

    def stop(self, mode="immediate"):
        self.run("pg_ctl", "-D", self.data, "-w", "-m", mode, "stop")

    def copied(self, folder):
        """A server with a copy of all that this one has, which is stopped for it."""
        self.stop("fast")
        other = copy.copy(self)
        other.folder, other.data = folder, os.path.join(folder, "data")
        os.chmod(folder, 0o755)
        shutil.chown(folder, os.stat(self.data).st_uid)
        subprocess.run([*self.user, "cp", "-a", self.data, other.data], check=True, cwd="/")
        self.start()
        other.start()
        return other

    def conninfo(self, database, host=None):
        return f"host={host or self.folder} port={self.port} dbname={database} user=owner"

    def sql(self, database, statement, role="owner"):
        """The rows, as lists of texts; NULL is None. Raises RuntimeError with the server's message."""
        environment = {**os.environ, "PGPASSWORD": PASSWORD, "PGOPTIONS": "-c client_min_messages=error"}
        done = subprocess.run(
            [os.path.join(self.programs, "psql"), "-X", "-q", "-A", "-t", "-h", self.folder, "-p", str(self.port),
             "-U", role, "-d", database,
             "-v", "ON_ERROR_STOP=1", "-v", "VERBOSITY=verbose", "-F", "\x1f", "-R", "\x1e", "-P", "null=\x1d",
             "-f", "-"],
            input=statement.encode(), env=environment, capture_output=True, check=False)
        if done.returncode:
            raise RuntimeError(done.stderr.decode().strip())
        output = done.stdout.decode().removesuffix("\n")  # as it is: text=True would change line ends
        rows = [row.split("\x1f") for row in output.split("\x1e")] if output else []
        return [[None if cell == "\x1d" else cell for cell in row] for row in rows]


class Session:
    """A connection that stays open, and with it a transaction."""

    def __init__(self, cluster, database, role):
        self.psql = subprocess.Popen(
            [os.path.join(cluster.programs, "psql"), "-X", "-q", "-A", "-t", "-h", cluster.folder, "-p",
             str(cluster.port), "-U", role, "-d", database], env={**os.environ, "PGPASSWORD": PASSWORD},
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def run(self, statements):
        """What they print."""
        print(statements + "\n\\echo that was it", file=self.psql.stdin, flush=True)
        return "".join(iter(self.psql.stdout.readline, "that was it\n"))

    def close(self):
        self.psql.communicate()


TABLES = {
    "sample": "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime,Value text",
    "alarm": "ID INTEGER PRIMARY KEY AUTOINCREMENT,LevelID INTEGER,DATETIME dateTime,AlarmObject text,AlarmType text,"
             "CurrentValue text,LimitValue text,AlarmDescription text,EndDate text,EndTime text",
    "log": "ID INTEGER PRIMARY KEY AUTOINCREMENT,DATETIME dateTime NOT NULL,userName text,logName text,message text",
}
COLUMNS = {kind: [column.split()[0] for column in text.split(",")] for kind, text in TABLES.items()}


def once(text):
    """What the store library encoded twice, as it was meant."""
    try:
        return text.encode("latin-1").decode("utf-8")
    except (UnicodeEncodeError, UnicodeDecodeError):
        return text


class File:
    """A store file as the library makes it, open as the device has it: no waiting for locks."""

    def __init__(self, path, journal="delete"):
        self.path = path
        self.connection = sqlite3.connect(path, timeout=0, isolation_level=None, check_same_thread=False)
        self.connection.execute(f"pragma journal_mode={journal}")
        self.connection.execute("pragma synchronous=off")  # nobody cuts the power here

    def close(self):
        self.connection.close()

    def run(self, *statement):
        return self.connection.execute(*statement)

    def table(self, name, kind, title=None):
        self.run(f"create table '{name}'({TABLES[kind]})")
        if title is not None:
            self.run("create table if not exists tb_config(ID INTEGER PRIMARY KEY AUTOINCREMENT,COLLECTOR text,"
                     "NAME text)")
            self.run("insert into tb_config values(NULL,?,?)", (name, title.encode().decode("latin-1")))

    def add(self, table, rows):
        """One transaction. Rows without their IDs."""
        self.run("begin immediate")
        for row in rows:
            self.run(f"insert into '{table}' values(NULL{',?' * len(row)})", row)
        self.run("commit")

    def samples(self, table, count, start=0):
        self.add(table, [(f"2024-05-{1 + i // 86400 % 28:02} {i // 3600 % 24:02}:{i // 60 % 60:02}:{i % 60:02}",
                          repr(random.random() * 100)) for i in range(start, start + count)])


def rows_of(path, table, kind):
    """The rows of a file by their IDs; cells as the archive's cells() gives them."""
    connection = sqlite3.connect(f"file:{quote(path)}?mode=ro", uri=True)
    connection.text_factory = bytes
    names = COLUMNS[kind][1:]
    found = {}
    for row in connection.execute(f"select ID,{','.join(f'typeof({n}),{n}' for n in names)} from '{table}'"):
        cells = []
        for i, name in enumerate(names):
            what, cell = row[1 + 2 * i].decode(), row[2 + 2 * i]
            if what == "text":
                try:
                    text = cell.decode("utf-8")
                    if "\0" not in text:
                        cell = once(text) if name == "AlarmDescription" else text
                except UnicodeDecodeError:
                    pass
            cells.append(cell)
        found[row[0]] = cells
    connection.close()
    return found


def archived(cluster, database, device, file, table, kind):
    """The rows of the archive as {(generation, ID): cells}. Raises ValueError if one is there twice."""
    time = "to_char(dt, 'YYYY-MM-DD HH24:MI:SS" + (".MS')" if kind == "log" else "')")
    columns = {"sample": [time, "val"],
               "alarm": ["level", time, "object", "type", "value", '"limit"', "description", "end_date", "end_time"],
               "log": [time, "user_name", "log_name", "message"]}[kind]
    odd = "end_odd" if kind == "alarm" else "null"
    found = {}
    for gen, number, odds, ends, *cells in cluster.sql(
            database, f"select gen, id, odd, {odd}, {', '.join(columns)} from fleet.{kind} where (device, tbl) = "
            f"(select device, tbl from fleet.source where device = {device} and file = '{file}' and name = '{table}')"):
        if kind == "alarm" and cells[0] is not None:
            cells[0] = int(cells[0])
        for name, what in {**json.loads(odds or "{}"), **json.loads(ends or "{}")}.items():
            (form, value), *_ = what.items()
            cells[COLUMNS[kind].index(name) - 1] = (bytes.fromhex(value) if form in ("blob", "bytes") else
                                                    float(value) if form == "real" else
                                                    what if form == "refused" else value)
        key = int(gen), int(number)
        if key in found:
            raise ValueError(f"{file} {table}: {key} is there twice")
        found[key] = cells
    return found


class Archive:
    """A database of the cluster with devices, and a folder for their files."""

    def __init__(self, cluster, program, name):
        self.cluster, self.program, self.name = cluster, program, name
        self.folder = tempfile.mkdtemp(prefix=f"{name}-", dir=cluster.folder)
        cluster.sql("postgres", f"create database {name}")
        self.ship("init", "--archive", cluster.conninfo(name))

    def sql(self, statement, role="owner"):
        return self.cluster.sql(self.name, statement, role)

    def ship(self, *arguments, check=True, timeout=300):
        done = subprocess.run([self.program, *arguments], capture_output=True, text=True, check=False, timeout=timeout)
        if check and done.returncode:
            raise RuntimeError(f"{arguments}: {done.returncode}: {done.stderr}{done.stdout}")
        return done

    def device(self, number, files, host=None):
        """Files by their names; the configuration's path."""
        secret = os.path.join(self.folder, "password")
        with open(secret, "w", encoding="utf-8") as file:
            file.write(PASSWORD + "\n")
        self.ship("add-device", str(number), "--name", f"Press {number}", "--password-file", secret, "--archive",
                  self.cluster.conninfo(self.name))
        path = os.path.join(self.folder, f"{number}{'-proxy' if host else ''}.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"[archive]\nconninfo=host={host or self.cluster.folder} dbname={self.name}\n"
                       f"password-file={secret}\n[device]\nnumber={number}\nzone=Europe/Berlin\n[files]\n")
            for name, store in files.items():
                file.write(f"{name}={store.path}\n")
        return path

    def rows(self, device, file, table, kind):
        return archived(self.cluster, self.name, device, file, table, kind)

    def generations(self, device):
        return int(self.sql(f"select count(*) from fleet.generation where device = {device}")[0][0])

    def gaps(self, device):
        return [tuple(int(cell) for cell in row) for row in self.sql(
            f"select tbl, gen, id_from, id_to from fleet.gap where device = {device} order by tbl, gen, id_from")]
