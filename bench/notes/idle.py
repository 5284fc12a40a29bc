# SPDX-License-Identifier: GPL-3.0-or-later
"""Keeps N connections to HOST:PORT open without sending anything, from ten loopback source
addresses in turn; a connection the server closes is opened again at once. Prints "ready" when
all are open and runs until killed."""
import selectors
import socket
import sys

host, port, count = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
selector = selectors.DefaultSelector()


def open_one(i):
    s = socket.socket()
    s.bind((f"127.0.0.{10 + i % 10}", 0))
    s.connect((host, port))
    selector.register(s, selectors.EVENT_READ, i)


for i in range(count):
    open_one(i)
print("ready", flush=True)
while True:
    for key, _ in selector.select():
        if not key.fileobj.recv(4096):
            selector.unregister(key.fileobj)
            key.fileobj.close()
            open_one(key.data)
