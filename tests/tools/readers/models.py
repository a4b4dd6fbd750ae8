# SPDX-License-Identifier: Apache-2.0
"""Random heaps, written as reports or documents. What `memleak` claims about them is exactly what
follows from the lists, and it is true of the heaps.
"""

import collections
import json
import random
import re

import memleak

ROUNDS = 40

# Two libraries of one name, another one with the same functions, and one without symbols.
PATHS = ("/a/twin.so", "/b/twin.so", "/other.so", "/plain.so")
OTHER, PLAIN = 2, 3

# A call site: where it allocates, and which of two calls in main leads there.
Site = collections.namedtuple("Site", "kind size library place call")


def seeds(count):
    for seed in range(count):
        random.seed(seed)
        print("seed", seed)
        yield seed


def in_bytes(number):
    return f"{number} B" if number < 1024 else f"{number / 1024:.1f} KiB"


def row_of(site):
    """All sites that differ only by the place within a function have the same row."""
    function = "fg"[site.place // 5] if site.library != PLAIN else site.place
    return site.kind, site.size, PATHS[site.library].split("/")[-1], function


class Report:
    """The report of a heap some time after `earlier`. It may be cut, torn or damaged. If `rebuilt`
    is set, one library is of another build."""

    def __init__(self, earlier, rebuilt=False):
        self.heap = {s: random.choice((c, random.randint(1, 20))) for s, c in earlier.items()
                     if random.randrange(6)}
        for _ in range(random.randint(3, 15)):
            site = Site(random.choice(("native", "native", "native", "java")),
                        8 * random.randrange(4), random.randrange(4), random.randrange(10),
                        random.randrange(2))
            self.heap[site] = random.randint(1, 20)
        sites = sorted(self.heap, key=lambda s: (s.kind == "java", -s.size * self.heap[s]))
        native = [s for s in sites if s.kind == "native"]
        longest = random.choice((1000, random.randrange(10)))
        torn = random.randrange(20) if random.randrange(6) == 0 else len(sites)
        damaged = random.randrange(8) == 0
        # The tracker omits native groups without frames. Damage also removes Java-native ones.
        self.listed = {s: self.heap[s] for i, s in enumerate(sites)
                       if s not in native[longest:] and i < torn
                       and not ((s.kind == "native" or damaged) and random.randrange(12) == 0)}
        complete = torn == len(sites)
        whole = complete and not damaged
        listed_native = sum(s.kind == "native" for s in self.listed)
        self.lists_all = {"java": whole, "native": whole and listed_native == len(native)}
        # Files may have moved or been replaced since.
        moved, suffix = random.choice(("", "/moved")), random.choice(("", " (deleted)"))
        libraries = [(moved + p + suffix, p[1] + "12"[rebuilt and i == OTHER])
                     for i, p in enumerate(PATHS)] + [("/bin/prog", "")]
        frames, groups = [], []
        for site, count in self.listed.items():
            shift = 100 if rebuilt and site.library == OTHER else 0
            function = row_of(site)[3] if site.library != PLAIN else ""
            groups.append(memleak.group(site.kind, site.size, count,
                                        [len(frames), len(frames) + 1]))
            frames += [(site.library, site.place + shift, function),
                       (len(PATHS), site.call, "main")]
        self.document = memleak.document(
            libraries, frames, groups, bytes=sum(s.size * self.heap[s] for s in native),
            groups=len(native), complete=complete, damaged=int(damaged))


def claim(reports, sites, rebuilt):
    """What the lists say about a row: its listed blocks and bytes by report, or that one of them
    may be too small. In a rebuilt library call sites are only counted."""
    known, sums = True, []
    seen = collections.defaultdict(lambda: [0, 0])
    for i, report in enumerate(reports):
        listed = [s for s in sites if s in report.listed]
        sums.append((sum(report.listed[s] for s in listed),
                     sum(s.size * report.listed[s] for s in listed)))
        for site in listed:
            counted = rebuilt and site.library == OTHER
            seen[site._replace(place=0) if counted else site][i] += 1
    for i, report in enumerate(reports):
        missing = any(lines[i] < max(lines) for lines in seen.values())
        known = known and (report.lists_all[sites[0].kind] or not missing)
    return known, *sums


def status_of(known, before, after):
    if not known:
        return "unknown"
    if before == after:
        return "same"
    if 0 in (before[0], after[0]):
        return "gone" if before[0] else "new"
    return "shrank" if before[::-1] > after[::-1] else "grew"


def row_in(document, group):
    frame = document["frames"][group["stack"][0]]
    library = document["libraries"][frame["library"]]["path"].removesuffix(" (deleted)")
    return (group["kind"], group["size"], library.split("/")[-1],
            frame["function"] or frame["offset"])


def difference():
    """`diff`, as document and as text."""
    seen = collections.Counter()
    for _ in seeds(2 * ROUNDS):
        rebuilt = random.randrange(4) == 0
        first = Report({})
        reports = [first, Report(first.heap, rebuilt)]
        files = [memleak.write(str(i), r.document) for i, r in enumerate(reports)]
        got = json.loads(memleak.run("diff", *files, "--json", "--partial")[0])
        rows = collections.defaultdict(list)
        for site in {**reports[0].listed, **reports[1].listed}:
            rows[row_of(site)].append(site)
        assert len(got["groups"]) == len(rows)
        stacks = collections.defaultdict(list)
        doubtful = []
        for group in got["groups"]:
            row = row_in(got, group)
            known, before, after = claim(reports, rows[row], rebuilt)
            assert (group["before"]["count"], group["before"]["total"]) == before, row
            assert (group["count"], group["total"]) == after, row
            status = status_of(known, before, after)
            assert group["status"] == status, (row, group, status)
            seen[status] += 1
            if status == "unknown":
                doubtful.append((before[1], after[1]))
            elif status != "same":
                stacks[row[0], row[2:]].append(after[1] - before[1])
            if known and not rebuilt:
                for report, (_, listed) in zip(reports, (before, after)):
                    assert listed == sum(s.size * report.heap.get(s, 0) for s in rows[row]), row
        text = memleak.run("diff", *files, "--partial")[0]
        growth = [sum(changes) for changes in stacks.values()]
        for title, sign, all_of in (("Grew", "+", [g for g in growth if g >= 0]),
                                    ("Shrank", "-", [-g for g in growth if g < 0])):
            line = re.search(rf"^{title}: (.*) in (\d+) stack", text, re.M)
            assert bool(line) == bool(all_of), text
            if line:
                expected = (sign * bool(sum(all_of)) + in_bytes(sum(all_of)), str(len(all_of)))
                assert line.groups() == expected, (expected, text)
        sums = " -> ".join(in_bytes(sum(s)) for s in zip(*doubtful))
        assert (f"Not judged: {len(doubtful)} stack" in text and sums in text) or not doubtful, text
    assert len(seen) == 6 and min(seen.values()) > 20, seen


def tree_lines(groups, names, outermost):
    """Pairs of bytes and indented name, from the root, as `show` prints them."""
    lines = []

    def visit(groups, level, indent, many_roots):
        children = collections.defaultdict(list)
        for group, stack in groups:
            if len(stack) > level:
                children[stack[level]].append((group, stack))
        order = sorted(children.values(), key=lambda of: -sum(g["total"] for g, _ in of))
        forks = len(order) > 1
        many_roots = forks if level == 0 else many_roots
        ends = any(len(stack) == level for _, stack in groups)
        if level > 0 and (forks or ends or (many_roots and indent == 0)):
            indent += 2
        for of in order:
            lines.append((sum(g["total"] for g, _ in of),
                          " " * indent + names[of[0][1][level]][1]))
            visit(of, level + 1, indent, many_roots)

    stacks = [[names.index(names[f]) for f in g["stack"]] for g in groups]
    visit([(g, s[::-1] if outermost else s) for g, s in zip(groups, stacks)], 0, 0, False)
    return lines


def views():
    """`show`: each view has the figures of the groups that the options select."""
    for seed in seeds(ROUNDS):
        libraries = [(f"/lib{i}.so", "") for i in range(3)]
        frames = [(random.randrange(3), i, random.choice(("f", "g", "h", ""))) for i in range(9)]
        names = [(lib, function or f"lib{lib}.so+{at:#x}") for lib, at, function in frames]
        groups = [memleak.group("native", random.randint(1, 4), random.randint(1, 9),
                                random.choices(range(9), k=random.randint(1, 5)),
                                [random.randrange(50)]) for _ in range(12)]
        unlisted = random.choice((0, 7))
        whole = sum(g["total"] for g in groups) + unlisted
        report = memleak.write("report", memleak.document(
            libraries, frames, groups, bytes=whole, groups=12 + unlisted))
        size, age = random.choice((0, 8)), random.choice((0, 20))
        function = random.choice(("", "", "f"))
        options = ["--top", 0, "--min-size", size, "--older-than", f"{age}s"]
        options += ["--filter", f"^{function}$"] if function else []
        picked = [g for g in groups if g["total"] >= size and g["ages"][0] >= age
                  and (not function or function in [names[f][1] for f in g["stack"]])]
        picked.sort(key=lambda g: -g["total"])

        def shown(view, pattern, sort="total"):
            text = memleak.run("show", report, "--by", view, "--sort", sort, *options)[0]
            left_out = whole - unlisted - sum(g["total"] for g in picked)
            if len(picked) < 12:
                assert re.search(rf" {left_out} B in {12 - len(picked)} stacks?\s+that the", text)
            assert ("that the report does not list" in text) == bool(unlisted), text
            return re.findall("^" + pattern + "$", text, re.M)

        share = [f"{100 * g['total'] / whole:.1f}" for g in picked]
        assert shown("stack", r"#\d+  (\d+) B  ([\d.]+) %  (\d+) blocks? of (\d+) B  age .*") == [
            (str(g["total"]), s, str(g["count"]), str(g["size"]))
            for g, s in zip(picked, share)], seed
        for by, keys in (("function", names), ("library", [(n[0],) for n in names])):
            sums = collections.defaultdict(lambda: [0, 0, 0])
            for group in picked:
                stack = [keys[f] for f in group["stack"]]
                for key in set(stack):
                    sums[key][1] += group["total"]
                    sums[key][2] += group["count"]
                sums[stack[0]][0] += group["total"]
            for sort, column in (("total", 0), ("count", 2)):
                rows = shown(by, r" *(\d+) B +[\d.]+ % +(\d+) B +(\d+)  (\S+)", sort)
                figures = [[int(n) for n in row[:3]] for row in rows]
                assert [f[column] for f in figures] == sorted((f[column] for f in figures))[::-1]
                wanted = [(sums[k], k[-1] if by == "function" else f"/lib{k[0]}.so") for k in sums]
                assert sorted(zip(figures, (r[3] for r in rows))) == sorted(wanted), (rows, wanted)
        for view in ("tree", "callers"):
            lines = shown(view, r" *(\d+) B +[\d.]+ %  ( *\S+)")
            wanted = tree_lines(picked, names, view == "tree")
            assert [(int(held), name) for held, name in lines] == wanted, (lines, wanted)


def ages():
    """The tracker keeps a record of each backtrace in each of its tables. A group lists at most 30
    ages of one record, that of its first block. `ownAges` says that no other group has them."""
    seen = collections.Counter()
    for _ in seeds(2 * ROUNDS):
        tables, places = random.randint(1, 3), random.choice((2, 7, 21))
        sizes, omitted = random.choice(([8], [8] * 8 + [16])), random.choice((3, 1000))
        groups, records = collections.defaultdict(list), collections.defaultdict(list)
        for age in range(120):  # no two blocks have the same age
            place = random.randrange(places)
            groups[random.choice(sizes), place].append(age)
            records[place, random.randrange(tables)].append(age)
        lines = []
        for (size, place), own in groups.items():
            if random.randrange(omitted) == 0:
                continue
            record = next(records[place, t] for t in range(tables)
                          if set(records[place, t]) & set(own))
            listed = "".join(f"{age} " for age in record[:30])
            lines.append(f"sz {size} {size * len(own)} num {len(own)} time {listed} "
                         f"bt [/no/lib.so+{place:#x}] ")
        report = memleak.write("report", memleak.text(lines, number=len(groups)))
        got = memleak.read(report)
        assert len(got["groups"]) == len(lines)
        span = max(age for group in got["groups"] for age in group["ages"])
        for group in got["groups"]:
            own = groups[group["size"], got["frames"][group["stack"][0]]["offset"]]
            if group["ownAges"]:
                assert set(group["ages"]) <= set(own) and len(group["ages"]) == min(30, len(own))
            listed = group["ages"]
            late, early = min(listed) < span // 4, max(listed) > span - span // 4
            pattern = ("settled" if not late else "growing" if early else "recent")
            assert group["pattern"] == (pattern if len(listed) > 3 else "unknown"), group
            seen[group["pattern"]] += 1
            seen[group["ownAges"], len(own) > 1, len(own) > 30] += 1
    assert len(seen) == 4 + 6, seen  # with one, several and many blocks


# Names of mappings and functions may contain parts of the report's syntax.
NAME_PARTS = (b"/", b"lib", b" (deleted)", b"[1] ", b"+0x", b"12", b"+0xg", b"] y", b"\xff",
              b"\xc3\xa4", b"[unknow]", b"#00 rel_pc ")


def random_name():
    name = random.choice((b"", b"/", b"[", b"/", b"["))
    name += b"".join(random.choices(NAME_PARTS, k=random.randrange(8))) if name else b""
    return name + b"n" * random.randrange(300_000) if random.randrange(2000) == 0 else name


def random_group(kind):
    """A group, and its lines."""
    size, total, count = (random.getrandbits(random.randint(1, 64)) for _ in range(3))
    ages = [random.randint(-3, 1000) for _ in range(random.randrange(31) * (kind == "native"))]
    frames = [(random_name(), random.getrandbits(32)) for _ in range(random.randint(1, 9))]
    sizes = b"sz %d %d num %d" % (size, total, count)
    if kind == "native":
        frames = [(None, 0) if random.randrange(5) == 0 else frame for frame in frames]
        places = [b"[unknow]" if name is None else b"[%s+%#x] " % (name, at)
                  for name, at in frames]
        lines = [sizes + b" time %s bt " % b"".join(b"%d " % a for a in ages) + b"".join(places)]
    else:
        lines = [sizes] + [b"#%02d rel_pc %x %s" % (i, at, name)
                           for i, (name, at) in enumerate(frames)]
    names = [(memleak.collapse((name or b"").decode(errors="replace")), at) for name, at in frames]
    return (kind, size, total, count, ages, names), lines


def parsed(text):
    """Whether the report is complete, its damaged lines, head and groups."""
    got = memleak.read(memleak.write("report", text), "--partial")
    libraries, totals = got["libraries"], got["totals"]

    def frame(index):
        frame = got["frames"][index]
        path = libraries[frame["library"]]["path"] if frame["library"] >= 0 else frame["function"]
        return memleak.collapse(path), frame["offset"]

    return (got["report"]["complete"], got["report"]["damaged"],
            (totals["bytes"], totals["groups"], got["report"]["backtraceSize"]),
            [(g["kind"], g["size"], g["total"], g["count"], g["ages"], list(map(frame, g["stack"])))
             for g in got["groups"]])


def parser():
    """Random reports are read back. Damage removes only the damaged group or line."""
    for seed in seeds(ROUNDS):
        native = random.randrange(8) if seed else 1000
        made = [random_group("native" if i < native else "java")
                for i in range(native + random.randrange(5))]
        groups = [group for group, _ in made]
        head = memleak.text([], total=seed, number=native, listed=native).encode().splitlines()[:5]
        lines = head + [line for _, of in made[:native] for line in of]
        lines.append(memleak.JAVA_RULE.encode()[:-1])
        lines += [line for _, of in made[native:] for line in of]
        text = b"\n".join([*lines, b"END"])
        assert parsed(text) == (True, [], (seed, native, 10), groups)

        # From a truncated text the parser reads the groups before the cut.
        complete, _, _, read = parsed(text[:random.randrange(len(head[0]) + 1, len(text))])
        assert not complete and read == groups[:len(read)]

        def damaged_at(number):
            damaged = [*lines[:number - 1], b"garbage", *lines[number:], b"END"]
            return parsed(b"\n".join(damaged))[1:4:2]

        number = random.randint(2, 4)
        assert damaged_at(number)[0] == [number]
        if not made:
            continue
        # A damaged line removes its group. If it is the first line of a Java-native group, it may
        # have been a frame of the group before.
        lost = random.randrange(len(made))
        within = random.randrange(len(made[lost][1]))
        number = 6 + (lost >= native) + sum(len(of) for _, of in made[:lost]) + within
        first = lost - (within == 0 and lost > native)
        assert damaged_at(number) == ([number], groups[:first] + groups[lost + 1:])


def other_texts():
    """Texts that the library does not write: edited, joined, or hostile."""
    line = "sz 1 1 num 1 time 0  bt [/a+0x1] "
    good = memleak.text([line])
    for mark in ("Total", "Allocation", "Backtrace"):
        for text in (good, memleak.text([])):
            assert parsed(re.sub(f"{mark}.*\n", "", text))[1] == [0]
    for closing in ("", "\n", "\r\n"):  # editors add a newline at the end
        complete, damaged, _, groups = parsed(good + closing)
        assert (complete, damaged, len(groups)) == (True, [], 1)
    assert parsed(memleak.text([]) + "\nsz 9 9 num 1\n")[:2] == (False, [7])
    for bad in ("sz 1 1 num 1 time 0  bt [/a+0x1]", "sz 1 1 num 1 time 0  bt [/a+0x] ",
                "sz 99999999999999999999 1 num 1 time 0  bt ", "x" * 70_000_000):
        complete, damaged, _, groups = parsed(memleak.text([bad, line]))
        assert (complete, damaged, len(groups)) == (True, [6], 1), bad[:50]
    assert "longer than any line" in memleak.run("show", memleak.path("report"))[1]


memleak.main(globals())
