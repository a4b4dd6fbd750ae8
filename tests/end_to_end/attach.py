# SPDX-License-Identifier: Apache-2.0
"""Attaches to processes that run without the tracker, takes reports, and detaches.

usage: attach.py CASE BIN_DIR CONTROLLER
"""

import contextlib
import os
import re
import signal
import socket
import subprocess
import threading
import time

import end_to_end
import servers

ROUNDS = 10
PYTHON = "/usr/bin/python3.11"
LEAKED = 4321  # bytes of a block that the program "attached" leaks

# Computes in the background, and keeps an array of 800,008 bytes for each line.
NUMPY = """
import numpy, sys, threading
def compute():
    while True:
        numpy.linalg.inv(numpy.random.rand(200, 200))
threading.Thread(target=compute, daemon=True).start()
def leak():
    kept.append(numpy.zeros(100001))
kept = []
for line in sys.stdin:
    leak()
    print(len(kept), flush=True)
"""

PAUSE = """
import signal
signal.signal(signal.SIGUSR1, lambda *_: None)
print("ready", flush=True)
while True:
    signal.pause()
    print("woken", flush=True)
"""

CONSTRUCTOR = """
#include <unistd.h>
__attribute__((constructor)) void Start(void) { do usleep(2000); while (%d); }
"""


class Client(threading.Thread):
    """Sends requests until it is told to stop. A wrong answer or a closed connection fails the
    test."""

    def __init__(self, port, request, answer):
        super().__init__()
        self.link = socket.create_connection(("127.0.0.1", port))
        self.request, self.answer = request, answer
        self.running, self.count, self.longest = True, 0, 0
        self.error = "not ended"

    def run(self):
        while self.running:
            start = time.monotonic()
            self.link.sendall(self.request % self.count)
            expected = self.answer % self.count if b"%" in self.answer else self.answer
            got = b""
            while len(got) < len(expected):
                part = self.link.recv(len(expected) - len(got))
                if not part:
                    self.error = f"closed after {self.count} requests"
                    return
                got += part
            if got != expected:
                self.error = f"{got} instead of {expected}"
                return
            time.sleep(0.0005)  # leaves time for the others
            self.longest = max(self.longest, time.monotonic() - start)
            self.count += 1
        self.error = None


class Session(servers.Session):
    def __init__(self, *arguments):
        super().__init__(*arguments)
        self.libdir = self.bin_dir + "/../lib"

    def begin(self, *command, **options):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, bufsize=1, **options)

    def begin_server(self, *command, **options):
        quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
        self.process = subprocess.Popen(command, **quiet, **options)
        servers.await_port(self.port)

    def attach(self, *options, pid=None):
        out = self.tell("attach", "--libdir", self.libdir, "--root", self.root + "/%p", *options,
                        pid=pid)
        print(out, end="")
        found = re.findall(r"stopped for ([\d.]+) (m?s)", out)
        return [float(value) * (1 if unit == "ms" else 1000) for value, unit in found]

    def ask(self, line, answer=None):
        self.send(line)
        got = self.answer()
        assert answer in (None, got), got
        return got

    def refuse(self, why, pid=None, command="attach", environment=None, prefix=()):
        """The command fails with one line, and the process continues."""
        result = subprocess.run(
            [*prefix, *self.controller, command, str(pid or self.process.pid)],
            capture_output=True, text=True, timeout=60, cwd=self.root, env=environment)
        assert result.returncode == 2 and result.stderr.count("\n") == 1, result
        assert why in result.stderr, result.stderr
        print(result.stderr, end="")

    @contextlib.contextmanager
    def clients(self, *exchanges):
        """Checks that no client has seen an error."""
        clients = [Client(self.port, *exchange) for exchange in exchanges]
        for client in clients:
            client.start()
        try:
            yield
        finally:
            for client in clients:
                client.running = False
                client.join(30)
                print(f"{client.count} requests, the longest took {client.longest * 1000:.0f} ms")
                assert client.error is None, client.error

    def rounds(self, function):
        """Attaches, reports and detaches repeatedly. A report has `function`."""
        still = []
        found = False
        for _ in range(ROUNDS):
            still += self.attach()
            time.sleep(0.2)
            self.tell("report")
            shown = self.memleak("show", self.process.pid, "--top", 1000)  # by its process id
            found = found or function in shown
            self.tell("detach")
        assert found, shown
        print(f"stopped for {sorted(still)[ROUNDS // 2]:.0f} ms (median)")
        self.refuse("was detached", command="on")


def redis(session):
    session.begin_server("redis-server", "--port", str(session.port), "--save", "")
    store = b"*3\r\n$3\r\nSET\r\n$10\r\n%010d\r\n$5\r\nvalue\r\n", b"+OK\r\n"
    read = b"*2\r\n$4\r\nECHO\r\n$10\r\n%010d\r\n", b"$10\r\n%010d\r\n"
    with session.clients(store, read):
        session.rounds("dbAdd")
    session.end()


def memcached(session):
    session.begin_server("memcached", "-p", str(session.port), "-l", "127.0.0.1", "-u", "root",
                         "-m", "1024")
    store = b"set key%d 0 0 2000\r\n" + b"x" * 2000 + b"\r\n", b"STORED\r\n"
    with session.clients(store, (b"get none%d\r\n", b"END\r\n")):
        session.rounds("event_base_loop")
    session.end()


def nginx(session):
    """Attaches to the master and all workers with one command. Workers run as another user if
    possible."""
    config = session.root + "/nginx.conf"
    with open(config, "w") as file:
        file.write(servers.NGINX % {"root": session.root, "port": session.port})
    session.begin_server("/usr/sbin/nginx", "-c", config, "-e", "stderr")
    while len(workers := servers.children(session.process.pid)) < 2:
        time.sleep(0.01)  # nginx listens before it forks
    with subprocess.Popen(["ab", "-q", "-t", "20", "-n", "1000000", "-c", "4",
                           f"http://127.0.0.1:{session.port}/"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as load:
        for _ in range(3):
            assert len(session.attach("--children")) == 3
            time.sleep(0.2)
            for pid in (session.process.pid, *workers):
                assert "took" in session.tell("report", pid=pid)
            assert session.tell("detach", "--children").count(": detached") == 3
        load.send_signal(signal.SIGINT)
        out = load.communicate()[0]
    assert re.search(r"Complete requests: +[1-9].*\nFailed requests: +0\n", out), out
    assert servers.children(session.process.pid) == workers, "a worker has ended"
    session.end()


def python(session):
    """The program computes without a pause. The report has its leak."""
    session.begin(PYTHON, "-c", NUMPY)
    for line in range(1, 4):
        session.ask("", str(line))
    session.attach("--depth", "64")
    for line in range(4, 24):
        session.ask("", str(line))
    assert re.search(r"since   \d\d:\d\d", session.tell("report"))
    sizes = session.sizes(f"{session.root}/{session.process.pid}")
    assert sizes[800_008] == 20, sizes
    assert "_multiarray_umath" in session.memleak("show", session.process.pid, "--top", 1)
    session.close()


def library(session, name, for_ever):
    """Compiles a library whose constructor runs for 2 ms, or forever."""
    source, path = f"{session.root}/{name}.c", f"{session.root}/{name}.so"
    with open(source, "w") as file:
        file.write(CONSTRUCTOR % for_ever)
    subprocess.run(["cc", "-shared", "-fPIC", source, "-o", path], check=True)
    return path


def places(session):
    """The debugger stops threads at random places. System calls continue, and the reports have
    exactly the blocks that were leaked while recording was on."""
    program = session.bin_dir + "/end_to_end_attached"
    for mode in ("wait", "threads", "signal", "dlopen"):
        session.begin(program, mode, library(session, "slow", 0))
        for leaks in (3, 7):
            session.attach()
            session.ask(str(leaks), "ok")
            session.tell("report")
            assert session.sizes(f"{session.root}/{session.process.pid}")[LEAKED] == leaks
            session.tell("detach")
        if mode == "wait":
            time.sleep(2.1)  # the calls that were interrupted end
            session.ask("0", "ok")  # and print nothing
        session.close()
    session.begin(program, "malloc")
    for _ in range(2):
        session.attach()
        session.tell("detach")
    session.process.terminate()
    assert session.process.wait(10) == 0
    session.begin(program, "linker", library(session, "never", 1))
    session.ask("0")
    session.refuse("is in the dynamic linker")
    session.close()


def interrupted(session):
    """A signal ends the system call in which the debugger stops the thread. A controller that is
    killed leaves a process that runs on and can be attached to."""
    session.begin(PYTHON, "-c", PAUSE)
    assert session.answer() == "ready"
    attach = [*session.controller, "attach", "--idle", "--libdir", session.libdir, "--root",
              session.root + "/%p", str(session.process.pid)]

    def is_traced():
        return "TracerPid:\t0\n" not in open(f"/proc/{session.process.pid}/status").read()

    for i in range(ROUNDS):
        with subprocess.Popen(attach) as controller:
            while not is_traced() and controller.poll() is None:
                pass
            time.sleep(i * 0.01)
            session.process.send_signal(signal.SIGUSR1)
            if i % 2:
                controller.kill()
        assert session.answer() == "woken"
        assert controller.returncode in ((0, -signal.SIGKILL) if i % 2 else (0,))
        while is_traced():
            time.sleep(0.01)
        session.memleak(*attach[len(session.controller):])
        session.tell("detach")
    session.process.kill()


def container(session):
    """A process in its own PID, user and mount namespace, where the libraries are not visible."""
    hidden = "mount -t tmpfs none /work && exec \"$@\"" if session.libdir.startswith("/work") \
        else "exec \"$@\""
    session.process = subprocess.Popen(
        ["unshare", "-Urpmf", "--mount-proc", "--kill-child", "sh", "-c", hidden, "sh",
         "redis-server", "--port", str(session.port), "--save", ""], stdout=subprocess.DEVNULL)
    servers.await_port(session.port)
    pid, = servers.children(session.process.pid)
    session.memleak("attach", pid, "--libdir", session.libdir)
    subprocess.run(["redis-benchmark", "-p", str(session.port), "-q", "-n", "2000", "-r", "2000",
                    "-t", "set"], check=True, stdout=subprocess.DEVNULL)
    session.tell("report", pid=pid)
    assert "dbAdd" in session.memleak("show", pid)
    session.tell("detach", pid=pid)
    session.process.kill()


def refusals(session):
    """Each refusal is one line that says what to do, and the process continues."""
    program = session.bin_dir + "/end_to_end_attached"
    session.begin(program, "threads")
    session.process.send_signal(signal.SIGSTOP)
    session.refuse("is stopped; continue it with kill -CONT")
    session.process.send_signal(signal.SIGCONT)
    session.refuse("is not loaded with the tracker; nothing was sent; load it with: memleak attach",
                   command="detach")
    session.refuse("install gdb", environment={"PATH": session.root})
    if os.geteuid() == 0:
        session.refuse("run memleak as the user who owns it, or as root",
                       prefix=("setpriv", "--reuid", str(servers.NOBODY), "--clear-groups"))
        session.refuse("is a thread of the kernel", pid=2)
    with subprocess.Popen(["gdb", "-nx", "-q", "-p", str(session.process.pid)],
                          stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL) as tracer:
        while open(f"/proc/{session.process.pid}/status").read().count(f"\t{tracer.pid}\n") < 1:
            time.sleep(0.05)
        session.refuse(f"is traced by process {tracer.pid} (gdb); end that debugger first")
    session.ask("0")
    session.close()

    source = session.root + "/source.c"
    for why, text, command in (
            ("statically linked", "int main(void) { return getchar(); }", ["cc", "-static"]),
            ("C library musl", "int main(void) { return getchar(); }", ["musl-gcc"]),
            ("defines malloc", "void* malloc(size_t n) { return sbrk(n); } void free(void* p) { }"
             "int main(void) { return getchar(); }", ["cc", "-fno-builtin", "-rdynamic"])):
        with open(source, "w") as file:
            file.write("#include <stdio.h>\n#include <unistd.h>\n" + text)
        subprocess.run([*command, source, "-o", session.root + "/program"], check=True)
        session.begin(session.root + "/program")
        session.refuse(why)
        assert session.process.poll() is None
        session.process.communicate("")
    session.start(root=session.root + "/root")
    session.refuse("was started by memleak run and is already tracked; start recording with")
    session.refuse("was started by memleak run and cannot be detached", command="detach")
    session.quit()


if __name__ == "__main__":
    end_to_end.main(globals(), Session)
