# SPDX-License-Identifier: GPL-3.0-or-later
"""Fills a ferrybox-notes database with N notes of the given account, in one transaction."""
import os
import sqlite3
import sys
import time

db, email, count = sys.argv[1], sys.argv[2], int(sys.argv[3])
con = sqlite3.connect(db)
(user_id,) = con.execute("SELECT id FROM users WHERE email = ?", (email,)).fetchone()
now = int(time.time() * 1_000_000)
rows = []
for i in range(count):
    text = f"Note {i}\nhttps://example.org/files/{i}.zip\n" + ("lorem ipsum " * 8)
    if i % 100 == 0:
        text += "needle"
    rows.append((os.urandom(16).hex(), user_id, text, now - i, now - i))
with con:
    con.executemany(
        "INSERT INTO notes (key, user_id, text, created, modified) VALUES (?, ?, ?, ?, ?)", rows)
print(rows[0][0])
