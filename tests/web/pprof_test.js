// SPDX-License-Identifier: Apache-2.0
// Decodes the output of `memleak export --format pprof` with the library that continuous profilers
// use. Compares it with `export --format json`. Run by ctest:
//   node pprof_test.js MEMLEAK NODE_MODULES WORK_DIRECTORY LIBRARY
// LIBRARY is small, with debug information and inlined calls.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, readFileSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join, resolve } from "node:path";
import { gunzipSync } from "node:zlib";
import { line, report, server } from "./documents.js";

const [memleak, modules, work, library] = process.argv.slice(2);
const { Profile } = createRequire(join(resolve(modules), "here.js"))("pprof-format");

mkdirSync(work, { recursive: true });
const [source, packed] = [join(work, "report"), join(work, "report.pb.gz")];
// A stack through each place in the library's code.
const spots = Array.from({ length: 512 }, (_, index) => index + 1);
const stack = (at) => `[${library}+0x${at.toString(16)}] [/nowhere/two.so+0x2a] [unknow]`;
const lines = spots.map((at) => `sz ${at} ${3 * at} num 3 time 5  bt ${stack(at)}`);
writeFileSync(source, report([line("one", 48, 1000), ...lines], 7));
execFileSync(memleak, ["export", source, "--format", "pprof", "-o", packed]);
const wanted = JSON.parse(execFileSync(memleak, ["export", source, "--format", "json"], { stdio: ["ignore", "pipe", "ignore"] }));
const got = Profile.decode(gunzipSync(readFileSync(packed)));

const text = (index) => got.stringTable.strings[Number(index)];
const byId = (list) => new Map(list.map((entry) => [Number(entry.id), entry]));
const [functions, locations, mappings] = [got.function, got.location, got.mapping].map(byId);

/** The frames of a location, innermost first, as comparable texts. */
function framesOf(location) {
  const mapping = mappings.get(Number(location.mappingId));
  if (mapping) {
    const [address, start, limit] = [location.address, mapping.memoryStart, mapping.memoryLimit];
    assert.ok(address >= start && address < limit, "an address lies in its mapping");
  }
  const where = mapping ? [text(mapping.filename), text(mapping.buildId)] : ["", ""];
  if (location.line.length === 0) return [["", "", 0, ...where].join("|")];
  return location.line.map(({ functionId, line: number }) => {
    const { name, filename } = functions.get(Number(functionId));
    return [text(name), text(filename), Number(number), ...where].join("|");
  });
}

function wantedFrame(index) {
  const { library: at, function: name, file, line: number } = wanted.frames[index];
  const { path, buildId } = wanted.libraries[at] ?? { path: "", buildId: "" };
  return [name || (at < 0 ? "[unknown]" : ""), file, number, path, buildId].join("|");
}

const types = got.sampleType.map(({ type, unit }) => `${text(type)}/${text(unit)}`);
assert.deepEqual(types, ["inuse_objects/count", "inuse_space/bytes"]);
assert.equal(text(got.defaultSampleType), "inuse_space");
const sum = (list, value) => list.reduce((total, entry) => total + Number(value(entry)), 0);
const { totals, groups, frames, libraries } = wanted;
assert.equal(sum(got.sample, ({ value }) => value[0]), sum(groups, (group) => group.count));
assert.equal(sum(got.sample, ({ value }) => value[1]), totals.listedBytes + totals.javaBytes);

// Samples have no names: compares their figures and frames.
const sample = ({ value, locationId }) =>
  [...value.map(Number), ...locationId.flatMap((id) => framesOf(locations.get(Number(id))))].join("\n");
const group = ({ count, total, stack: indices }) => [count, total, ...indices.map(wantedFrame)].join("\n");
assert.deepEqual(got.sample.map(sample).sort(), groups.map(group).sort());

// The comparison covers symbols and inlined calls.
const named = frames.filter((frame) => frame.function.includes("known::") && frame.line > 0);
assert.ok(named.length > 3 && named.some((frame) => frame.inlined), "the library has symbols");
assert.ok(libraries.some(({ path, buildId }) => path === library && /^[0-9a-f]{16,}$/.test(buildId)));

// The main program is first, as readers expect.
writeFileSync(`${source}.json`, JSON.stringify(server()));
execFileSync(memleak, ["export", `${source}.json`, "--format", "pprof", "-o", packed]);
const { mapping, stringTable } = Profile.decode(gunzipSync(readFileSync(packed)));
assert.equal(stringTable.strings[Number(mapping[0].filename)], "/usr/lib/server");
