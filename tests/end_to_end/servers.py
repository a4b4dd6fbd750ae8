# SPDX-License-Identifier: Apache-2.0
"""Real servers: each starts idle, is switched on under load, reports twice, is watched, and its
reports are compared. Also processes that are hard to reach.

usage: servers.py CASE BIN_DIR CONTROLLER
"""

import contextlib
import glob
import os
import re
import shutil
import socket
import subprocess
import sys
import time

import end_to_end

POSTGRES = "/usr/lib/postgresql/15/bin/"
NOBODY = 65534
LOAD_SECONDS = 60  # longer than a case takes

NGINX = """
daemon off; master_process on; worker_processes 2; pid %(root)s/pid; error_log stderr;
events {}
http { access_log off; root %(root)s; client_body_temp_path %(root)s/1; proxy_temp_path %(root)s/2;
  fastcgi_temp_path %(root)s/3; uwsgi_temp_path %(root)s/4; scgi_temp_path %(root)s/5;
  server { listen 127.0.0.1:%(port)d; } }
"""

# Stores values under new keys, without end.
MEMCACHED_LOAD = """
import socket, sys
link = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
for i in range(10 ** 9):
    link.sendall(b"set key%d 0 0 2000\\r\\n%s\\r\\n" % (i, b"x" * 2000))
    link.recv(100)
"""


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def await_port(port):
    end = time.monotonic() + 30
    while time.monotonic() < end:
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)):
            return
        time.sleep(0.05)
    raise AssertionError(f"no server at port {port}")


def children(pid):
    with open(f"/proc/{pid}/task/{pid}/children") as file:
        return [int(child) for child in file.read().split()]


class Session(end_to_end.Session):
    def __init__(self, *arguments):
        super().__init__(*arguments)
        os.chmod(self.root, 0o777)
        self.port = free_port()

    def serve(self, *command, **options):
        """Starts the server. Each process has the root directory PID in the session's root."""
        run = self.run_command(*command, root=self.root + "/%p")
        self.process = subprocess.Popen(run, stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT,
                                        **options)
        self.name = os.path.basename(command[0])  # even if the process changes its title

    @contextlib.contextmanager
    def load(self, *command):
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        with subprocess.Popen(command, **quiet) as process:
            try:
                yield
            finally:
                process.kill()

    def observe(self, pid, function=None):
        """Switches recording on, takes two reports and compares them. All of them are answered. The
        last one has blocks below `function`."""
        status = self.tell("status", pid=pid)
        assert re.search("never switched on|when it was forked", status), status
        assert re.search(r"recording on, tables emptied, \d+ frames by dwarf \([\d.]+ m?s\)\n",
                         self.tell("on", pid=pid))
        if function:
            time.sleep(1)  # the load allocates
        reports = []
        for number in range(2):
            out = self.tell("report", "--keep-recording", pid=pid)
            assert "recording continues" in out, out
            reports.append(f"{self.root}/report{number}.{pid}")
            shutil.copytree(f"{self.root}/{pid}/data/log/reliability", reports[-1])
            assert not glob.glob(f"{self.root}/{pid}/dev")
        compared = self.memleak("diff", *(f"{report}/allocations_dump" for report in reports))
        assert compared.count(f"     {self.name} (pid {pid} on ") == 2, compared
        if function:
            shown = self.memleak("show", reports[-1], "--top", 1000)
            assert function in shown, shown
        status = self.tell("status", pid=pid)
        assert re.search(r"(?s)native on since.*[\d,]+ live blocks\n.*3 carried out", status), status
        assert f"root        {self.root}/{pid}\n" in status, status

    def watch(self, pid):
        directory = f"{self.root}/watch.{pid}"
        out = self.tell("watch", "--every", "5s", "--for", "10s", "-o", directory, pid=pid)
        assert "already recording" in out and len(glob.glob(directory + "/report-*")) == 3, out
        self.tell("report", pid=pid)
        assert "native off since" in self.tell("status", pid=pid)

    def end(self):
        """Ends the server, and checks that it ends without an error."""
        self.process.terminate()
        assert self.process.wait(30) in (0, -15), self.process.returncode


def redis(session):
    """The server overwrites its environment with its title. The program is a link to
    redis-check-rdb."""
    session.serve("redis-server", "--port", str(session.port), "--save", "",
                  "--set-proc-title", "yes")
    await_port(session.port)
    with session.load("redis-benchmark", "-p", str(session.port), "-l", "-q", "-r", "100000",
                      "-t", "set,lpush"):
        session.observe(session.process.pid, "dbAdd")
        session.watch(session.process.pid)
    session.end()


def nginx(session):
    """The master and both workers, which run as another user if possible. Workers leave the control
    signal open and have no state file before the first command."""
    config = session.root + "/nginx.conf"
    with open(config, "w") as file:
        file.write(NGINX % {"root": session.root, "port": session.port})
    session.serve("/usr/sbin/nginx", "-c", config, "-e", "stderr")
    await_port(session.port)
    master = session.process.pid
    workers = children(master)
    assert len(workers) == 2, workers
    with session.load("ab", "-q", "-t", str(LOAD_SECONDS), "-n", "100000000", "-c", "4",
                      f"http://127.0.0.1:{session.port}/"):
        for pid in (master, *workers):
            session.observe(pid)
        session.watch(workers[0])
    assert children(master) == workers, "a worker has ended"
    session.end()


def postgres(session):
    """Records the server and the process of a connection. The server refuses to run as root."""
    data = session.root + "/data"
    user = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.geteuid() == 0 else {}
    socket_options = ["-k", session.root, "-p", str(session.port)]
    subprocess.run([POSTGRES + "initdb", "-D", data, "-A", "trust", "-U", "tester", "--no-sync"],
                   check=True, stdout=subprocess.DEVNULL, **user)
    session.serve(POSTGRES + "postgres", "-D", data, "-h", "", "-F", *socket_options, **user)
    client = ["-h", session.root, "-p", str(session.port), "-U", "tester", "postgres"]
    end = time.monotonic() + 30
    while subprocess.run([POSTGRES + "pgbench", "-q", "-i", *client], stderr=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL).returncode != 0:
        assert time.monotonic() < end, "no server"
        time.sleep(0.1)
    with session.load(POSTGRES + "pgbench", "-n", "-T", str(LOAD_SECONDS), *client):
        time.sleep(1)  # the processes of the earlier connections have ended
        connection, = [child for child in children(session.process.pid)
                       if b"tester" in open(f"/proc/{child}/cmdline", "rb").read()]
        for pid in (session.process.pid, connection):
            session.observe(pid)
        session.watch(connection)
    session.end()


def memcached(session):
    """The server has threads."""
    session.serve("memcached", "-p", str(session.port), "-l", "127.0.0.1", "-u", "root",
                  "-m", "1024")
    await_port(session.port)
    with session.load(sys.executable, "-c", MEMCACHED_LOAD, str(session.port)):
        session.observe(session.process.pid, "event_base_loop")
        session.watch(session.process.pid)
    session.end()


def namespaces(session):
    """A process in its own PID, user and mount namespace is controlled from outside."""
    session.process = subprocess.Popen(
        ["unshare", "-Urpf", "--mount-proc", "--kill-child",
         *session.run_command("redis-server", "--port", str(session.port), "--save", "",
                              root=session.root + "/%p")],
        stdout=subprocess.DEVNULL)
    await_port(session.port)
    benchmark = ["redis-benchmark", "-p", str(session.port), "-q", "-n", "2000", "-r", "2000"]
    pid, = children(session.process.pid)
    if os.geteuid() == 0:
        nobody = ("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups")
        for command in ("on", "report", "status"):
            line = session.refused(command, pid=pid, prefix=nobody)
            assert "not permitted to inspect" in line and "another PID namespace" in line, line
    path = session.root + "/1/data/log/reliability/allocations_dump"
    assert "frames by" in session.tell("on", "--depth", "20", pid=pid)
    with open(session.root + "/1/properties") as properties:
        assert "backtacemaxnum=20\n" in properties.read()
    subprocess.run([*benchmark, "-t", "set"], check=True, stdout=subprocess.DEVNULL)
    out = session.tell("report", pid=pid)
    assert f"report  /proc/{pid}/root{path} (in the process: {path})\n" in out, out
    assert session.sizes(session.root + "/1")
    assert f"{session.root}/1)\n" in session.tell("status", pid=pid)
    session.process.kill()


def refusals(session):
    """Each refusal is one line, at once. Programs that use musl run without the loader."""
    def refused(*words, why):
        start = time.monotonic()
        line = session.refused(*words)
        assert why in line and time.monotonic() - start < 2, line

    session.start("--start", root=session.root + "/root")
    session.step("alloc 20 100")
    reports = session.root + "/root/data/log/reliability"
    session.process.send_signal(19)  # SIGSTOP
    for command in ("on", "report", "clear"):
        refused(command, why="is stopped; continue it with kill -CONT")
    assert "stopped" in session.tell("status")
    session.process.send_signal(18)  # SIGCONT

    # The directory of the report vanishes, and another user's comes in its place.
    session.tell("report", "--keep-recording")
    shutil.rmtree(reports)
    session.tell("report", "--keep-recording")
    shutil.rmtree(reports)
    os.symlink("/nonexistent", reports)
    refused("report", "--keep-recording", why="no report of process")
    os.remove(reports)
    session.step("free 1")
    session.tell("report")
    assert session.sizes(session.root + "/root")[100] == 19
    session.quit()

    source, program = session.root + "/musl.c", session.root + "/musl"
    with open(source, "w") as file:
        file.write('#include <stdio.h>\nint main(void) { return puts("musl runs") < 0; }\n')
    subprocess.run(["musl-gcc", source, "-o", program], check=True)
    result = subprocess.run(session.run_command(program), capture_output=True, text=True)
    assert result.returncode == 2 and "for the C library musl" in result.stderr, result
    shell = session.run_command("/bin/sh", "-c", f"{program}; /bin/echo glibc runs",
                                options=("--start", "--report-at-exit"), root=session.root + "/%p")
    result = subprocess.run(shell, capture_output=True, text=True)
    assert (result.stdout, result.stderr) == ("musl runs\nglibc runs\n", ""), result
    assert glob.glob(session.root + "/[0-9]*/data"), "echo has reported"


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
