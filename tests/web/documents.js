// SPDX-License-Identifier: Apache-2.0
// Documents for the tests of the page: a small one, one with hostile names, and a large one.

const kMade = 1795260000;

function finish(frames, groups) {
  const native = groups.filter((group) => group.kind === "native");
  const java = groups.filter((group) => group.kind === "java");
  const sum = (list, key) => list.reduce((total, group) => total + group[key], 0);
  const listedBytes = sum(native, "total");
  return {
    format: "memleak-profile",
    version: 1,
    report: {
      ...{ path: "/data/allocations_dump", made: kMade, complete: true, damagedLines: 0 },
      backtraceSize: 10,
    },
    totals: {
      ...{ bytes: listedBytes, groups: native.length, blocks: sum(native, "count") },
      ...{ listedBytes, listedGroups: native.length, unlistedBytes: 0, unlistedGroups: 0 },
      ...{ javaBytes: sum(java, "total"), javaGroups: java.length },
    },
    libraries: [
      ...["libc.so.6", "libstore.so", "server", "libcodec.so", "libgone.so"].map((name) => ({
        ...{ path: `/usr/lib/${name}`, name, buildId: "", found: name !== "libgone.so" },
      })),
      ...["[heap]", ""].map((path) => ({ path, name: path, buildId: "", found: false })),
    ],
    frames,
    groups,
  };
}

function frame(library, name, file = "", line = 0) {
  const known = file !== "";
  return { library, offset: 4096 + line, name, function: known ? name : "", file, line, inlined: false };
}

function group(size, count, stack, ages, more = {}) {
  const [pattern, ownAges] = ["unknown", ages.length === Math.min(30, count)];
  return { kind: "native", size, count, total: size * count, ages, ownAges, pattern, stack, ...more };
}

const kServer = [
  frame(0, "malloc", "malloc/malloc.c", 3301),
  frame(1, "store::Cache::Insert(std::string const&, store::Entry)", "src/cache.cpp", 118),
  frame(1, "store::Session::Open(int)", "src/session.cpp", 42),
  frame(2, "server::Handle(Request&)", "src/handle.cpp", 210),
  frame(2, "server::Loop()", "src/loop.cpp", 33),
  frame(2, "main", "src/main.cpp", 12),
  frame(3, "codec::Decode(Span<unsigned char const>)", "src/decode.cpp", 77),
  frame(3, "codec::Tables::Grow(unsigned long)", "src/tables.cpp", 19),
  frame(4, "libgone.so+0x1a2c"),
];

const spread = (count, oldest) => Array.from({ length: count }, (_, i) => Math.round((i * oldest) / count));

const kBounds = [0, 1, 4, 15, 60, 240, 900, 3600, 14400, 86400];

/** Of a profile: exact ages. */
function aged(size, count, stack, counts, more = {}) {
  const ageCounts = kBounds.map((_, at) => counts[at] ?? 0);
  const held = kBounds.filter((_, at) => ageCounts[at] > 0);
  return { ...group(size, count, stack, [held[0] + 1, held.at(-1) + 30], more), maxSize: 2 * size, ageCounts, ownAges: true };
}

/** A profile. */
export function server() {
  const groups = [
    aged(512, 24000, [1, 3, 4, 5], { 3: 900, 4: 2100, 5: 6000, 6: 9000, 7: 6000 }, { pattern: "growing" }),
    aged(65536, 60, [7, 6, 3, 4, 5], { 7: 60 }, { pattern: "settled" }),
    aged(1048576, 2, [2, 4, 5], { 7: 2 }),
    aged(96, 9000, [2, 3, 4, 5], { 4: 3000, 5: 6000 }, { pattern: "recent" }),
    aged(4096, 120, [8, 6, 3, 3, 3, 3, 3, 3, 3], { 5: 20, 6: 100 }, { pattern: "recent", cut: true }),
    aged(32, 5000, [1, 2, 3, 4, 5], { 1: 20, 4: 980, 7: 4000 }, { pattern: "growing" }),
  ];
  const document = finish(kServer, groups);
  document.report.process = {
    ...{ library: "1.0.0", program: "/opt/bin/server", arguments: ["./server", "--port", "80"], pid: 4711 },
    ...{ host: "build7", started: kMade - 4000, written: kMade, since: kMade - 3640, kinds: ["native"] },
    ...{ unwind: "tables", unrecorded: 0, ageBounds: kBounds },
  };
  return document;
}

export const kHostileNames = [
  "</script><script>window.hacked = 1</script>",
  `<img src=x onerror="window.hacked = 1">`,
  `"quoted" 'names' & entities &lt;b&gt; \\ @DATA@ $& \u2028`,
  `std::map<${"std::vector<int>, ".repeat(700)}`.slice(0, 9999) + ">",
];

export function hostile() {
  const frames = kHostileNames.map((name, index) => frame(index, name, `src/<b>${index}.cpp`, 1));
  const groups = frames.map((_, index) => group(100, 10 - index, [index, 0], [5]));
  groups.push(group(1, 1, [frames.push(frame(6, "(nameless)+0x10")) - 1], []));
  const deep = Array.from({ length: 1000 }, (_, level) => frames.push(frame(1, `deep${level}`, "src/deep.cpp", 1)) - 1);
  groups.push(group(1, 1, deep.reverse(), []));
  return finish(frames, groups);
}

/** `count` groups of `depth` frames whose stacks fork at every level, like those of real programs. */
export function large(count, depth, functions) {
  const frames = Array.from({ length: functions }, (_, index) =>
    frame(index % 5, `module${index % 97}::Class${index % 1009}::method_${index}(int)`, "src/a.cpp", index),
  );
  let seed = 1;
  const random = (below) => {
    seed = (seed * 48271) % 2147483647;
    return seed % below;
  };
  const groups = Array.from({ length: count }, (_, index) => {
    const stack = new Array(depth);
    let path = 7;
    for (let level = depth - 1; level >= 0; --level) {
      path = (path * 31 + random(level < depth / 2 ? 3 : 2)) % functions;
      stack[level] = path;
    }
    return group(16 + random(4096), 1 + random(200), stack, spread(30, 10 + random(5000)));
  });
  groups.sort((a, b) => b.total - a.total);
  return finish(frames, groups);
}

/**
 * A report of native groups, given as lines, and of a Java-native group. Its head counts `unlisted`
 * more groups of 200 bytes each.
 */
export function report(lines, unlisted = 0) {
  const bytes = lines.reduce((sum, line) => sum + Number(line.split(" ")[2]), 0);
  return `Native Heap MemLeak Tracker Version 2.0:
Total memory(bytes): ${bytes + 200 * unlisted}
Allocation records: ${lines.length + unlisted}/${lines.length}
Backtrace size: 10

${lines.join("\n")}
==============================Java-Native Stack==============================
sz 64 640 num 10
#00 rel_pc 1f com.example.<Cache>.put
#01 rel_pc 2f 
END`;
}

const kPlaces = {
  one: `[/nowhere/<b>lib "one".so+0x1f0] [/nowhere/two.so+0x2a] `,
  two: "[/nowhere/two.so+0x2a] [unknow]",
  three: "[/nowhere/three.so+0x7] [/nowhere/two.so+0x2a] ",
  four: "[/nowhere/four.so+0x8] [/nowhere/two.so+0x2a] ",
};

export function line(place, size, count, ages = [3]) {
  return `sz ${size} ${size * count} num ${count} time ${ages.join(" ")}  bt ${kPlaces[place]}`;
}
