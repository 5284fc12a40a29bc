# SPDX-License-Identifier: GPL-3.0-or-later
"""A PostgreSQL server of a test run's own, for the Python tests."""
import glob
import os
import shutil
import socket
import subprocess
import tempfile


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class PrivatePostgres:
    """A PostgreSQL server of the test run's own: Debian's initdb and pg_ctl in a temporary
    folder, on a free loopback port, no password for the user "ferrybox"; as root it runs as the
    postgres user, which PostgreSQL requires."""

    def __init__(self):
        programs = sorted(glob.glob("/usr/lib/postgresql/*/bin/pg_ctl"),
                          key=lambda path: int(path.split("/")[4]))
        if not programs:
            raise RuntimeError("PostgreSQL is not installed (make deps installs it); the tests "
                               "that need it do not skip")
        self.bin = os.path.dirname(programs[-1])
        self.dir = tempfile.TemporaryDirectory()
        if os.geteuid() == 0:
            shutil.chown(self.dir.name, "postgres", "postgres")
        self.data, self.port, self.count = f"{self.dir.name}/data", free_port(), 0
        self.run("initdb", "-D", self.data, "-U", "ferrybox", "--auth=trust", "-E", "UTF8",
                 "--locale=C.UTF-8", "--no-sync")
        self.run("pg_ctl", "-D", self.data, "-l", f"{self.dir.name}/server.log", "-w", "-o",
                 f"-p {self.port} -k {self.dir.name} -c listen_addresses=127.0.0.1 -c fsync=off",
                 "start")

    def run(self, program, *arguments):
        command = [f"{self.bin}/{program}", *arguments]
        if os.geteuid() == 0:
            command = ["runuser", "-u", "postgres", "--", *command]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT)

    def new_database(self):
        self.count += 1
        name = f"notes{self.count}"
        subprocess.run([f"{self.bin}/createdb", "-h", "127.0.0.1", "-p", str(self.port), "-U",
                        "ferrybox", name], check=True)
        return f"postgresql://ferrybox@127.0.0.1:{self.port}/{name}"

    def stop(self):
        self.run("pg_ctl", "-D", self.data, "-m", "fast", "-w", "stop")
        self.dir.cleanup()
