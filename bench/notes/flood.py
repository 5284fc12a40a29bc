# SPDX-License-Identifier: GPL-3.0-or-later
"""What a stranger throws at ferrybox-notes on HOST:PORT, until killed; prints "ready" once it
runs, and on SIGTERM the count of answers by status.

  flood.py HOST PORT logins N   N connections, each from a new random 127.x.y.z address now and
                                then, posting logins of made-up accounts as fast as answered
  flood.py HOST PORT bare N A   N connections from 127.0.0.2 to 127.0.0.(A+1) that never send a
                                byte, opened and closed over and over"""
import base64
import collections
import random
import signal
import socket
import sys
import threading

host, port, mode, count = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4])
answers = collections.Counter()
stop = threading.Event()


def report(*_):
    stop.set()
    print(" ".join(f"{status}:{n}" for status, n in sorted(answers.items())), flush=True)
    sys.exit(0)


def logins(seed):
    rng = random.Random(seed)
    while not stop.is_set():
        source = f"127.{rng.randrange(1, 250)}.{rng.randrange(250)}.{rng.randrange(1, 250)}"
        try:
            s = socket.create_connection((host, port), source_address=(source, 0))
        except OSError:
            answers["refused"] += 1
            continue
        with s:
            for _ in range(50):
                body = base64.b64encode(
                    f"email={rng.getrandbits(64)}@example.org&password=x".encode())
                try:
                    s.sendall(b"POST /api/login HTTP/1.1\r\nHost: notes\r\nContent-Length: "
                              + str(len(body)).encode() + b"\r\n\r\n" + body)
                    head = s.recv(4096)
                except OSError:
                    head = b""
                if not head:
                    answers["closed"] += 1
                    break
                answers[head.split(b" ", 2)[1].decode()] += 1


def bare(index, addresses):
    while not stop.is_set():
        held = []
        for i in range(count // 8):
            try:
                s = socket.socket()
                s.bind((f"127.0.0.{2 + (index + i) % addresses}", 0))
                s.connect((host, port))
                held.append(s)
            except OSError:
                answers["refused"] += 1
        answers["opened"] += len(held)
        for s in held:
            s.close()


signal.signal(signal.SIGTERM, report)
if mode == "logins":
    workers = [threading.Thread(target=logins, args=(i,), daemon=True) for i in range(count)]
else:
    workers = [threading.Thread(target=bare, args=(i, int(sys.argv[5])), daemon=True)
               for i in range(8)]
for worker in workers:
    worker.start()
print("ready", flush=True)
signal.pause()
