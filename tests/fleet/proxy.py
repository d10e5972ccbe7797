# SPDX-License-Identifier: MIT
"""A connection to PostgreSQL that is cut at a chosen message."""
import os
import socket
import threading


class Proxy:
    """Listens in a folder as the server does in its own. The `number`th message of a kind from "client" or "server"
    is the last of a connection: it is still passed on, or not."""

    def __init__(self, folder, server_folder):
        self.folder, self.server = folder, os.path.join(server_folder, ".s.PGSQL.5432")
        self.cut = None
        self.happened = False
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(os.path.join(folder, ".s.PGSQL.5432"))
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def cut_at(self, side, kind, number, passed_on):
        self.cut, self.happened = (side, kind, number, passed_on), False

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            server = socket.socket(socket.AF_UNIX)
            server.connect(self.server)
            count = [0]
            for side, source, target in (("client", client, server), ("server", server, client)):
                threading.Thread(target=self.pump, args=(side, source, target, count), daemon=True).start()

    def pump(self, side, source, target, count):
        data, started = b"", side == "server"
        try:
            while True:
                more = source.recv(65536)
                if not more:
                    break
                data += more
                while len(data) >= (5 if started else 4):
                    begin = 1 if started else 0  # the first message of a client has no kind
                    size = begin + int.from_bytes(data[begin:begin + 4], "big")
                    if len(data) < size:
                        break
                    kind, message, data = chr(data[0]) if started else "", data[:size], data[size:]
                    started = True
                    if self.cut and (side, kind) == self.cut[:2]:
                        count[0] += 1
                        if count[0] == self.cut[2]:
                            if self.cut[3]:
                                target.sendall(message)
                            self.happened = True
                            break_both(source, target)
                            return
                    target.sendall(message)
        except OSError:
            pass
        break_both(source, target)


def break_both(*sockets):
    for each in sockets:
        try:
            each.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
