// SPDX-License-Identifier: Apache-2.0
// Decodes the output of `memleak export --format pprof` with the library that continuous profilers
// use. Compares it with `export --format json`. Run by ctest:
//   node pprof_test.js MEMLEAK NODE_MODULES WORK_DIRECTORY LIBRARY
// LIBRARY is small, with debug information and inlined calls.

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { gunzipSync } from "node:zlib";
import { file, inWork, packages, run } from "./browser.js";
import { line, report, server } from "./documents.js";

const library = process.argv[5];
const { Profile } = packages("pprof-format");
const packed = inWork("report.pb.gz");
// A stack through each place in the library's code.
const spots = Array.from({ length: 512 }, (_, index) => index + 1);
const stack = (at) => `[${library}+0x${at.toString(16)}] [/nowhere/two.so+0x2a] [unknow]`;
const lines = spots.map((at) => `sz ${at} ${3 * at} num 3 time 5  bt ${stack(at)}`);
const source = file("report", report([line("one", 48, 1000), ...lines], 7));
run("export", source, "--format", "pprof", "-o", packed);
const wanted = JSON.parse(run("export", source, "--format", "json"));
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
const { groups, frames, libraries } = wanted;

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
run("export", file("report.json", JSON.stringify(server())), "--format", "pprof", "-o", packed);
const { mapping, stringTable } = Profile.decode(gunzipSync(readFileSync(packed)));
assert.equal(stringTable.strings[Number(mapping[0].filename)], "/usr/lib/server");
