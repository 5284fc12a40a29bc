#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Writes the two large documents of the JSON memory benchmark into a directory:
numbers.json, one array of small integers (0 to 999), and objects.json, one array of small
records of four members. Both are the same on every run and at least SIZE_MB megabytes."""
import random
import sys


def write_array(path, size, item):
    rng = random.Random(20261123)
    written = 1
    with open(path, "w", encoding="ascii") as out:
        out.write("[")
        chunk = []
        first = True
        while written < size:
            text = item(rng)
            if not first:
                text = "," + text
            first = False
            chunk.append(text)
            written += len(text)
            if len(chunk) >= 10000:
                out.write("".join(chunk))
                chunk = []
        out.write("".join(chunk))
        out.write("]")


def number(rng):
    return str(rng.randrange(1000))


def record(rng):
    n = rng.randrange(1000000)
    return ('{"id":%d,"name":"item %d","in_stock":%s,"price":%d.%02d}'
            % (n, n, "true" if rng.random() < 0.5 else "false",
               rng.randrange(1000), rng.randrange(100)))


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: large-documents.py SIZE_MB DIR")
    size = int(sys.argv[1]) * 1000 * 1000
    directory = sys.argv[2]
    write_array(directory + "/numbers.json", size, number)
    write_array(directory + "/objects.json", size, record)


if __name__ == "__main__":
    main()
