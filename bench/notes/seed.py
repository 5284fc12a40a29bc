# SPDX-License-Identifier: GPL-3.0-or-later
"""Fills an account of a running ferrybox-notes with COUNT notes through its own API (POST
/api/note, from 8 connections at once), so that the service keeps its indexes as it always
does, whichever store it has. Every hundredth note holds the word "needle". Prints the key of
the first note.

    seed.py URL EMAIL PASSWORD COUNT
"""
import base64
import http.client
import sys
import threading
import urllib.parse

url, email, password, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
address = urllib.parse.urlsplit(url)
clients = 8


def connect():
    return http.client.HTTPConnection(address.hostname, address.port, timeout=60)


def post(connection, path, text):
    body = base64.b64encode(text.encode()).decode()
    connection.request("POST", path, body,
                       {"Content-Type": "application/x-www-form-urlencoded"})
    answer = connection.getresponse()
    data = answer.read().decode()
    if answer.status != 200:
        sys.exit(f"POST {path.split('?')[0]}: {answer.status} {data}")
    return data


def text(i):
    note = f"Note {i}\nhttps://example.org/files/{i}.zip\n" + ("lorem ipsum " * 8)
    return note + "needle" if i % 100 == 0 else note


token = post(connect(), "/api/login", f"email={email}&password={password}")
query = urllib.parse.urlencode({"auth": token, "email": email})
keys = [None] * count


def write(first):
    connection = connect()
    for i in range(first, count, clients):
        keys[i] = post(connection, f"/api/note?{query}", text(i))


threads = [threading.Thread(target=write, args=(c,)) for c in range(clients)]
for t in threads:
    t.start()
for t in threads:
    t.join()
if None in keys:
    sys.exit("not every note was written")
print(keys[0])
