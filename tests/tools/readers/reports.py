# SPDX-License-Identifier: Apache-2.0
"""Reports with hostile names, damage and libraries whose symbols are known."""

import json
import os
import random
import re
import shutil
import socket
import subprocess
import time

import memleak

LIBRARY, ARM64, SCHEMA = memleak.MORE


def shell(command):
    return subprocess.run(command, shell=True, check=True, capture_output=True, text=True,
                          cwd=memleak.DIRECTORY.name).stdout


def line(size, count, frames):
    """The line of a group. `frames` are pairs of library and offset."""
    frames = "".join(f"[{library}+{offset:#x}] " for library, offset in frames)
    return f"sz {size} {size * count} num {count} time 5  bt {frames}"


def hostile_names():
    """Exports with names of any bytes, compared with Python's decoder."""
    parts = (b";", b"%", b" ", b"\x7f", b"\xff", b"\xc3\xa4", b"\xe2\x82", b"a", b"\xc0\xaf", b"\\",
             b"\xed\xa0\x80", b"\xf5\x80\x80\x80", b"\xf0\x9f\x98\x80", b"\xc2\x9b", b"\x1b[1m")
    random.seed(1)
    names = [b"x" + b"".join(random.choices(parts, k=random.randrange(9))) for _ in range(300)]
    lines = [line(i + 1, 1, [(f"/no/{name.decode('latin-1')}", 1)])
             for i, name in enumerate(names)]
    report = memleak.write("report", memleak.text(lines).encode("latin-1"))
    got = memleak.read(report)
    for name, group in zip(names, got["groups"]):
        library = got["libraries"][got["frames"][group["stack"][0]]["library"]]
        wanted = memleak.collapse("/no/" + name.decode(errors="replace"))
        assert memleak.collapse(library["path"]) == wanted, name
    # A document has replaced the bytes, but the names are still the same.
    same = memleak.run("diff", memleak.write("document", got), report)[0]
    assert "Unchanged: 44.1 KiB in 300 stacks" in same, same

    def escape(name):
        return "".join(c if c.isprintable() and c not in " ;%" else "".join(
            f"%{b:02X}" for b in c.encode(errors="surrogateescape"))
                       for c in name.decode(errors="surrogateescape"))

    folded = memleak.run("export", report, "--format", "folded")[0].splitlines()
    wanted = [f"{escape(name)}+0x1" for name in names]
    assert {stack.split(" ")[0] for stack in folded} == set(wanted)
    speedscope = memleak.write("scope", memleak.run("export", report, "--format", "speedscope")[0])
    shell("/usr/bin/python3 -c 'import json, sys, jsonschema\n"
          "jsonschema.validate(*(json.load(open(p)) for p in sys.argv[1:]))' "
          f"{speedscope} {SCHEMA}")
    # Names of functions are demangled, unless that takes too long.
    bomb, last = "_Z1f1AIiiE", "S0_"
    for digit in "123456789ABCDEFGHIJKLMNOPQRSTUVWXY":  # each one contains the last twice
        bomb, last = f"{bomb}S_I{last}{last}E", f"S{digit}_"
    pairs = {"_ZN5known5InnerEPi": "known::Inner(int*)", "i": "i", "_Zbroken": "_Zbroken",
             "_ZN5alloc3vec12Vec$LT$T$GT$4push17h0123456789abcdefE": "alloc::vec::Vec<T>::push",
             "_RNvNtCs1234_7mycrate3foo3bar": "mycrate::foo::bar", bomb: bomb}
    java = "sz 8 8 num 1\n" + "".join(f"#00 rel_pc 1 {name}\n" for name in pairs)
    got = memleak.read(memleak.write("java", memleak.text([], java=java)))
    assert [f["function"] for f in got["frames"]] == list(pairs.values())


def wide_lines():
    """Long names and large figures do not make lines wider than a terminal."""
    most = 2**64 - 1
    libraries = [("/lib/" + "l" * 200, "")]
    frames = [(0, 1, "n" * 200), (0, 2, "日" * 99), (0, 3, "\x1b" * 90), (0, most, "")]
    groups = [memleak.group("native", 2**32 - 1, 2**32 + 1, stack, [most // 4, 1])
              for stack in ([0, 1, 2, 3], [3, 2, 1, 0], [])]
    files = [memleak.write(str(i), memleak.document(
        libraries, frames, groups[i:], bytes=most, groups=most)) for i in (0, 1)]
    texts = [memleak.run("show", files[0], "--by", by, "--top", 1)[0]
             for by in ("stack", "library", "function", "tree", "callers")]
    for text in (*texts, memleak.run("diff", *files)[0]):
        assert "16.0 EiB" in text and "18,446,744,073,709,551,615" in text, text
        for row in text.splitlines():
            if memleak.DIRECTORY.name not in row:
                assert len(row) + row.count("日") <= 80, row


def damage():
    """Documents are read back equal. Damage of a report stays visible, and that of a document is
    refused."""
    text = memleak.text(["sz 32 96 num 3 time 5 200 0  bt [/absent.so+0x10] [unknow][+0x1] ",
                         *["garbage"] * 20, "sz 8 8 num 1 time  bt [/absent.so+0x10] [unknow]"],
                        total=5000, number=3, listed=2,
                        java="sz 16 64 num 4\n#00 rel_pc 1a f\n#01 rel_pc 1b \n#02 rel_pc 1a f\n")
    report = memleak.write("report", text)
    whole = memleak.read(report)
    assert whole["report"]["damaged"] == list(range(7, 27)) and whole["report"]["complete"]
    names = [[whole["frames"][f]["name"] for f in g["stack"]] for g in whole["groups"]]
    assert names == [["absent.so+0x10", "[unknown]", "(nameless)+0x1"],
                     ["absent.so+0x10", "[unknown]"], ["f", "[unknown]", "f"]]
    assert whole["totals"] == {
        "bytes": 5000, "groups": 3, "announcedGroups": 2, "blocks": 4, "listedBytes": 104,
        "listedGroups": 2, "unlistedBytes": 4896, "unlistedGroups": 1, "javaBytes": 64,
        "javaGroups": 1}
    copy = memleak.write("copy", whole)
    again = memleak.read(copy)
    assert {**again, "report": {**again["report"], "path": report}} == whole
    left_out = "20 lines left out: 7-26\n"
    assert left_out in memleak.run("show", copy, "--sysroot", "/")[1]
    cut = memleak.write("cut", text[:text.index("sz 8 8")])
    assert "truncated" in memleak.run("show", cut, code=2)[1]
    out = memleak.run("export", cut, "--partial", "--format", "json", "-o", memleak.path("c"))[1]
    assert "line 11 left out: not a line of a report\nmemleak: 15 more lines left out: 12-26" in out
    compared = json.loads(memleak.run("diff", report, memleak.path("c"), "--partial", "--json")[0])
    for document in (memleak.path("c"), memleak.write("diff", compared)):
        out = memleak.run("html", document, "-o", memleak.path("page"), code=2)[1]
        assert "report is truncated: " in out, out
    for document, places in (
            (whole, (("groups/0/stack/0", 5), ("groups/0/stack/0", -1), ("frames/0/library", 2),
                     ("groups/0/total", -5), ("groups/0/total", "5"), ("groups/0/kind", "other"),
                     ("frames", 7), ("totals", None), ("version", 2), ("libraries/0/found", 1))),
            (compared, (("base/totals", 0), ("groups/1/before", 0), ("groups/0/status", "x")))):
        for place, value in places:
            changed = json.loads(json.dumps(document))
            at, *keys = changed, *place.split("/")
            for key in keys[:-1]:
                at = at[int(key) if isinstance(at, list) else key]
            at[int(keys[-1]) if isinstance(at, list) else keys[-1]] = value
            command = "html" if "base" in changed else "show"
            options = ("-o", memleak.path("page")) if command == "html" else ()
            out = memleak.run(command, memleak.write("damaged", changed), *options, code=2)[1]
            assert out.startswith("memleak: ") and out.count("\n") == 1, out


def growth_gate():
    """--fail-over compares the totals, Java-native bytes included, and never trusts damage."""
    def report(name, total, **more):
        lines = [line(400, 2, [("/no/a", 16)])]
        return memleak.write(name, memleak.text(lines, total=total, **more))

    old, new = report("old", 1000), report("new", 3049)
    java = report("java", 3049, java="sz 7 7 num 1\n#00 rel_pc 1 f\n")
    document = memleak.write("document", memleak.read(old))
    for before, after, limit, code in (
            (old, new, 2049, 0), (old, new, "2k", 1), (document, new, "2k", 1), (new, old, 0, 0),
            (old, java, 2055, 1), (document, java, 2056, 0),
            (old, report("damaged", "12x4"), "9m", 2)):
        memleak.run("diff", before, after, "--fail-over", limit, code=code)
    memleak.run("diff", old, report("torn", 3049, end=""), "--partial", "--fail-over", 9999, code=2)
    out = memleak.run("diff", document, java, "--fail-over", "2k", code=1)[1]
    assert out.endswith("memleak: grew by 2,056 bytes, more than 2,048\n"), out


def names_at(library, offsets, *options):
    """By offset in the library's executable mapping: function, file and line of each frame,
    innermost first."""
    lines = [line(i + 1, 1, [(library, offset)]) for i, offset in enumerate(offsets)]
    got = memleak.read(memleak.write("report", memleak.text(lines)), *options)
    frames = [[got["frames"][f] for f in g["stack"]] for g in got["groups"]]
    return [[(f["function"], os.path.basename(f["file"]), f["line"]) for f in stack]
            for stack in frames]


def symbols():
    """Every instruction of the known libraries, compared with LLVM's symbolizer. One library is for
    arm64, where the mapping starts elsewhere if pages are larger. Only calls show their size."""
    for path, page in ((LIBRARY, 4096), (ARM64, 4096), (ARM64, 16384)):
        code = shell(f"llvm-objdump -d --no-show-raw-insn -j .text {path}")
        code = code[re.search(r"<(_ZN5known.*|fixture_spot)>:", code).start():]
        lines = [(int(at, 16), word) for at, word in re.findall(r"^ *(\w+): *\t(\w+)", code, re.M)]
        places = [at for at, _ in lines]
        if path == ARM64:
            places = [at + 4 for at, word in lines if word == "bl"]
        segment = re.search(r"LOAD +\S+ (\S+) .* R E", shell(f"readelf -lW {path}"))
        start = int(segment[1], 16) // page * page
        told = json.loads(shell("llvm-symbolizer --output-style=JSON -e "
                                + " ".join([path, *map(hex, places)])))
        wanted = [[(s["FunctionName"], os.path.basename(s["FileName"]), s["Line"])
                   for s in place["Symbol"]] for place in told]
        assert names_at(path, [p - start for p in places]) == wanted != [], (path, page)
        assert path == ARM64 or max(map(len, wanted)) == 2, "inlined"
    # Libraries without debug information have the names of their symbol table.
    libc = os.path.realpath("/lib/x86_64-linux-gnu/libc.so.6")
    segment = re.search(r"LOAD +\S+ (\S+) .* R E", shell(f"readelf -lW {libc}"))
    at = re.search(r"^(\S+) (\S+) [TW] getpid@", shell(f"nm -DS {libc}"), re.M)
    stack, = names_at(libc, [int(at[1], 16) - int(segment[1], 16)])
    assert "getpid" in stack[0][0], stack
    for name in ("", "[vdso]", "/no/such/lib.so", "/dev/null", "/etc/passwd"):
        assert names_at(name, [16]) == [[("", "", 0)]]


def debug_files():
    """The places of separate debug files that the help text lists, and of copies of libraries."""
    at = re.search(r"^(\S+) \S+ T fixture_plain", shell(f"nm -S {LIBRARY}"), re.M)
    segment = re.search(r"LOAD +\S+ (\S+) .* R E", shell(f"readelf -lW {LIBRARY}"))
    offset = int(at[1], 16) - int(segment[1], 16)

    def line_in(path, *options):
        stack, = names_at(path, [offset], *options)
        return stack[-1][2]

    def strip(folder, remove=""):
        shell(f"mkdir {folder}; cd {folder}; cp {LIBRARY} lib.so; "
              f"objcopy --only-keep-debug {remove} lib.so lib.debug; "
              f"objcopy --strip-all {remove} --add-gnu-debuglink=lib.debug lib.so")
        return memleak.path(f"{folder}/lib.so")

    path = strip("stripped")
    assert line_in(path) == 113, "beside it, by its link"
    shell("mv stripped/lib.debug debug")
    # Nobody is asked, even if the environment names a server.
    server = socket.create_server(("127.0.0.1", 0))
    server.setblocking(False)
    os.environ["DEBUGINFOD_URLS"] = f"http://127.0.0.1:{server.getsockname()[1]}"
    assert line_in(path) == 0
    try:
        server.accept()
        raise AssertionError("asked the server")
    except BlockingIOError:
        pass
    hint = memleak.read(memleak.path("report"))["libraries"][0]["hint"]
    assert hint.startswith(".build-id/"), hint
    for place in (hint, "lib.debug", "lib.so", "below/" + path):
        shell(f"mkdir -p symbols/below $(dirname symbols/{place})")
        shutil.copy(memleak.path("debug"), memleak.path("symbols/" + place))
        assert line_in(path, "--symbols", "/", "--symbols", memleak.path("symbols"),
                       "--symbols", memleak.path("symbols/below")) == 113, place
        shutil.rmtree(memleak.path("symbols"))
    path = strip("nameless", "-R .note.gnu.build-id")
    assert line_in(path) == 113, "by the checksum in its link"
    shell("echo changed >>nameless/lib.debug")
    assert line_in(path) == 0, "of another build"

    shell(f"mkdir -p device/system/lib64; cp {LIBRARY} device/system/lib64/libdevice.so")
    for name in ("/system/lib64/libdevice.so", "/system/lib64/libdevice.so (deleted)"):
        assert line_in(name, "--sysroot", memleak.path("device")) == 113
    assert line_in(LIBRARY, "--sysroot", memleak.path("device")) == 0, "not that of the device"
    assert line_in(LIBRARY + " (deleted)") == 0, "may be another file now"
    assert line_in("/data/app/base.apk!/lib/arm64/libdevice.so",
                   "--symbols", memleak.path("device/system/lib64")) == 113


def builds():
    """`diff` gives each report the symbols of its build, or warns."""
    library = memleak.path("lib.so")
    shell(f"mkdir keep; cp -p {LIBRARY} lib.so; cp -p lib.so keep/lib.so")
    places = [(library, i) for i in range(0x400)]
    report = memleak.write("report", memleak.text([line(4, 1, places)]))
    document = memleak.write("document", memleak.read(report))
    shell("cp /bin/true lib.so; touch -d '+1 minute' lib.so")
    out = memleak.run("diff", report, report)[1]
    assert "known::Widget::Use" not in out and "--old-sysroot" in out, out
    assert "memleak: names may be wrong: /" in out, out
    for old in ((document,), (report, "--old-symbols", memleak.path("keep"))):
        out = memleak.run("diff", *old, report, "--top", 0)[1]
        assert "known::Widget::Use" in out and "--old-sysroot" not in out, out
        assert "use --sysroot" in out, "of the later report"


def profiles():
    """A profile is read in place of its report. Wrappers are left out, code of a just-in-time
    compiler has its names, and damaged lines are left out with what depends on them."""
    report = memleak.write("allocations_dump", memleak.text([], total=0))
    with open(report, "rb") as file:
        content = file.read()
    digest = 0xCBF29CE484222325
    for byte in content:
        digest = (digest ^ byte) * 0x100000001B3 % 2**64
    pid, program, started = 2**30 + os.getpid(), "/bin/a\\x20b", 0  # of no process
    stacks = ["s 30 3 5 20 1 9 0:1,1:2 0 1 2 3", "s 8 1 8 8 4 4 1:1 2 1", "s x", "s 9 1 9 9 4 4 1:1 1"]

    def profile(lines, end, depth=32):
        return memleak.write("profile", "\n".join([
            "memleak profile 1", "library 1", f"program {program}", "arguments a\\x20b \\ c",
            f"pid {pid}", "host h", f"started {started}", "written 9", "since 2", "kinds native",
            "unwind tables", f"depth {depth}", "unrecorded 0", f"report {len(content)} {digest:x}",
            "ages 0 4", "object 7f0000001000 - 7f0000001000-7f0000009000@0 /no/lib.so",
            "f 0 10010", "f 0 20010", "f 1 7f0000002abc", *lines, end, ""]))

    profile(stacks[:2], "end 2")
    names = memleak.write("names", "10000 40 operator new(unsigned long)\n20000 40 Leak /a.js:1\n")
    map_file = f"/tmp/perf-{pid}.map"
    shutil.copy(names, map_file)
    try:
        out = memleak.run("show", report)[0]
        skipped = memleak.run("show", report, "--skip", "^Leak")[0]
        if os.geteuid() == 0:
            os.chown(map_file, 65534, 65534)
            assert "Leak" not in memleak.run("show", report)[0], "another user has made the file"
        os.remove(map_file)
        os.symlink(names, map_file)
        assert "Leak" not in memleak.run("show", report)[0], "a link"
    finally:
        os.remove(map_file)
    assert out.startswith(f"a b (pid {pid} on h), ") and "recorded for 7s" in out, out
    assert "#1  38 B  100.0 %  4 blocks of 5 B to 20 B  age 1s..9s  growing\n     Leak" in out, out
    assert "lib.so+0x1abc\n" in out and "operator new" not in out, out
    assert "Leak" not in skipped and "     lib.so+0x1abc\n" in skipped, skipped
    assert "No stack is known to have changed" in memleak.run("diff", report, report)[0]
    # A stack of the maximum depth is cut, unless it starts at the start of the program.
    for depth, name, cut in ((3, "Leak", True), (4, "Leak", False), (3, "_start", False)):
        profile(stacks[:2], "end 2", depth)
        with open(map_file, "w") as file:
            file.write(f"10000 40 operator new(unsigned long)\n20000 40 {name}\n")
        groups = json.loads(memleak.run("export", report, "--format", "json")[0])["groups"]
        os.remove(map_file)
        assert [group["cut"] for group in groups] == [cut], (depth, name)
    # A process in a container has its own /tmp.
    pid, program, started = 1, os.path.realpath("/bin/sleep"), int(time.time())
    profile(stacks[:2], "end 2")
    script = "mount -t tmpfs none /tmp; echo 20000 40 Leak >/tmp/perf-1.map; echo; exec sleep 60"
    with subprocess.Popen(["unshare", "-Urpfm", "--kill-child", "sh", "-c", script],
                          stdout=subprocess.PIPE) as process:
        process.stdout.readline()
        while not (out := memleak.run("show", report)[0]).count("     Leak\n"):
            assert time.time() < started + 30, out  # sh has become sleep
        process.kill()
    profile(stacks, "end 4")
    document = memleak.read(report)
    assert document["report"]["damaged"] == [22, 23] and document["totals"]["bytes"] == 38
    profile(stacks, "end 5")
    assert "truncated" in memleak.run("show", report, code=2)[1]
    memleak.write("allocations_dump", memleak.text([line(4, 1, [])], total=4))
    assert "belongs to another report" in memleak.run("show", report)[1]


memleak.main(globals())
