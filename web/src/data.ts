// SPDX-License-Identifier: Apache-2.0
// The data of the page (format "memleak-page" version 2, see docs/report-json.md), and what is
// computed from it once. No DOM here.

import { shortName } from "./names.js";

export interface Process {
  name?: string; // for users
  program: string;
  arguments: string[];
  pid: number;
  host: string;
  written: number; // seconds since the epoch
  since: number;
  kinds: string[];
  unwind: string;
  unrecorded: number;
}

export interface Report {
  path: string;
  made: number; // seconds since the epoch
  complete: boolean;
  damagedLines: number;
  backtraceSize: number;
  process?: Process; // of a profile
}

export interface Totals {
  bytes: number;
  groups: number;
  blocks: number;
  listedBytes: number;
  unlistedBytes: number;
  unlistedGroups: number;
  javaBytes: number;
  javaGroups: number;
}

export interface Library {
  path: string;
  name: string;
  buildId: string;
  found: boolean;
  hint: string; // the file that would give (more) symbols
}

/** The reports of `memleak watch`; see docs/trend-json.md. */
export interface Trend {
  reports: { seconds: number; bytes: number }[];
  groups: {
    stack: string[];
    libraries: string[];
    values: ({ count: number; total: number } | null)[];
    growth: number | null;
    line: { bytesPerMinute: number; margin95: number | null } | null;
  }[];
}

export type Column = Uint8Array | Uint16Array | Uint32Array | Float64Array;

interface Frames {
  name: Column; // indices of strings
  library: Column; // index + 1; 0 for none
  file: Column;
  line: Column;
  address: Column;
  inlined: Column; // 0 or 1
  unresolved: Column;
}

interface Groups {
  size: Column; // of the smallest block
  larger: Column; // by how much the largest block is larger
  count: Column;
  total: Column;
  youngest: Column; // NaN for none
  oldest: Column;
  node: Column; // of the innermost frame; 0 without a stack
  java: Column; // 0 or 1
  ownAges: Column;
  cut: Column;
  pattern: Column; // indices of kPatterns
  beforeCount?: Column;
  beforeTotal?: Column;
  status?: Column; // indices of kStatuses
}

/** The entries of group g are from begin[g] to begin[g + 1]. */
interface Ages {
  begin: Column;
  age: Column; // indices of ageBounds
  blocks: Column;
}

interface PageData {
  format: string;
  version: number;
  report: Report;
  totals: Totals;
  libraries: Library[];
  ageBounds: number[];
  base?: { report: Report; totals: Totals };
  trend?: Trend;
  nothingHeld?: string; // why there are no groups
  strings: string[];
  frames: Frames;
  groups: Groups;
  ages: Ages;
  /**
   * A tree from the outermost frames. Node n, counted from 1, has the frame frame[n - 1]. All
   * descendants of a node directly follow it, parents before children.
   */
  stacks: {
    frame: Column;
    jumps: Column; // pairs: a node, and its parent if that is not the node before it; 0 for none
  };
}

export const kPatterns = ["unknown", "growing", "settled", "recent"] as const;
/** "unknown": a report that omits groups may hide a part of the group. */
export const kStatuses = ["grew", "shrank", "new", "gone", "same", "unknown"] as const;
export type Status = (typeof kStatuses)[number];

/** All frames with one name in one library. */
export class FunctionInfo {
  private shortened: string | null = null;

  constructor(
    readonly name: string,
    readonly library: number,
    readonly unresolved: boolean,
    public lower: string, // name, library and source files for the search
  ) {}

  get short(): string {
    return (this.shortened ??= this.unresolved ? this.name : shortName(this.name));
  }
}

export type Measure = "bytes" | "count";

/** Stacks of functions, innermost first: those of group g are from start[g] to start[g + 1]. */
export interface Stacks {
  start: Uint32Array;
  functions: Uint32Array;
}

export class Data {
  readonly report: Report;
  readonly totals: Totals;
  readonly libraries: Library[];
  readonly ageBounds: number[];
  /** How many of the ages of `ageBounds` have blocks, from the youngest on. */
  readonly ageScale: number;
  readonly base: PageData["base"];
  readonly trend: Trend | undefined;
  readonly nothingHeld: string | undefined;
  readonly frames: Frames;
  readonly groups: Groups;
  readonly ages: Ages;
  readonly count: number; // of groups
  readonly isDiff: boolean;
  readonly functions: FunctionInfo[] = [];
  /** The function that stands for the missing outer frames of cut stacks. */
  readonly cutFunction: number;
  /** By node of the tree of stacks; 0 is its root. */
  readonly parentOf: Uint32Array;
  readonly nodeFunction: Uint32Array;
  private readonly frameOf: Column;
  private readonly functionOf: Uint32Array; // by frame
  private readonly strings: string[];
  private readonly made = new Map<boolean, Stacks>();

  constructor(page: PageData) {
    this.report = page.report;
    this.totals = page.totals;
    this.libraries = page.libraries;
    this.ageBounds = page.ageBounds;
    let oldest = 3; // a scale of fewer ages shows nothing
    for (const age of page.ages.age) oldest = Math.max(oldest, age);
    this.ageScale = oldest + 1;
    this.base = page.base;
    this.trend = page.trend;
    this.frames = page.frames;
    this.groups = page.groups;
    this.ages = page.ages;
    this.nothingHeld = page.nothingHeld;
    this.strings = page.strings;
    this.count = page.groups.size.length;
    this.isDiff = page.base !== undefined;
    this.functionOf = this.findFunctions();
    this.cutFunction = this.functions.length;
    this.functions.push(new FunctionInfo(`(cut at ${this.report.backtraceSize} frames)`, -1, false, ""));
    this.frameOf = page.stacks.frame;
    this.parentOf = parents(page.stacks);
    this.nodeFunction = new Uint32Array(this.parentOf.length);
    for (let node = 1; node < this.nodeFunction.length; ++node) {
      this.nodeFunction[node] = this.functionOf[this.frameOf[node - 1]!]!;
    }
  }

  /** The stacks of all groups, with the pseudo function of cut stacks. `named`: without functions that have no name. */
  stacks(named: boolean): Stacks {
    let stacks = this.made.get(named);
    if (!stacks) this.made.set(named, (stacks = this.functionStacks(named)));
    return stacks;
  }

  /** The frames of a group, innermost first. */
  framesOf(group: number): number[] {
    const frames: number[] = [];
    for (let node = this.groups.node[group]!; node !== 0; node = this.parentOf[node]!) {
      frames.push(this.frameOf[node - 1]!);
    }
    return frames;
  }

  frameName(frame: number): string {
    return this.strings[this.frames.name[frame]!]!;
  }

  frameFile(frame: number): string {
    return this.strings[this.frames.file[frame]!]!;
  }

  frameFunction(frame: number): number {
    return this.functionOf[frame]!;
  }

  libraryName(library: number): string {
    return library < 0 ? "" : this.libraries[library]!.name || "(nameless)";
  }

  /** What the group holds in the later report. */
  after(group: number, measure: Measure): number {
    return (measure === "bytes" ? this.groups.total : this.groups.count)[group]!;
  }

  /** Bytes in the earlier report; without one, the current bytes. */
  before(group: number, measure: Measure): number {
    if (!this.isDiff) return this.after(group, measure);
    return (measure === "bytes" ? this.groups.beforeTotal! : this.groups.beforeCount!)[group]!;
  }

  /** The larger one of before and after. */
  width(group: number, measure: Measure): number {
    return Math.max(this.before(group, measure), this.after(group, measure));
  }

  status(group: number): Status | "" {
    return this.isDiff ? kStatuses[this.groups.status![group]!]! : "";
  }

  isJava(group: number): boolean {
    return this.groups.java[group] === 1;
  }

  pattern(group: number): (typeof kPatterns)[number] {
    return kPatterns[this.groups.pattern[group]!]!;
  }

  private findFunctions(): Uint32Array {
    const { name, library, file, unresolved } = this.frames;
    const functionOf = new Uint32Array(name.length);
    const known = new Map<number, number>();
    const lastFile: number[] = [];
    for (let frame = 0; frame < name.length; ++frame) {
      const key = name[frame]! * (this.libraries.length + 1) + library[frame]!;
      let id = known.get(key);
      if (id === undefined) {
        known.set(key, (id = this.functions.length));
        const text = this.strings[name[frame]!]!;
        const lower = `${text}\n${this.libraryName(library[frame]! - 1)}`.toLowerCase();
        this.functions.push(new FunctionInfo(text, library[frame]! - 1, unresolved[frame] === 1, lower));
      }
      functionOf[frame] = id;
      if (file[frame] !== lastFile[id] && this.strings[file[frame]!] !== "") {
        lastFile[id] = file[frame]!;
        this.functions[id]!.lower += `\n${this.strings[file[frame]!]!.toLowerCase()}`;
      }
    }
    return functionOf;
  }

  private functionStacks(named: boolean): Stacks {
    const { parentOf, nodeFunction } = this;
    const keeps = Uint8Array.from(this.functions, ({ unresolved }) => (named && unresolved ? 0 : 1));
    const depth = new Uint16Array(parentOf.length); // how many are kept from the root to a node
    for (let node = 1; node < depth.length; ++node) depth[node] = depth[parentOf[node]!]! + keeps[nodeFunction[node]!]!;
    const { node: nodes, cut } = this.groups;
    const start = new Uint32Array(this.count + 1);
    for (let group = 0; group < this.count; ++group) {
      start[group + 1] = start[group]! + depth[nodes[group]!]! + cut[group]!;
    }
    const functions = new Uint32Array(start[this.count]!);
    for (let group = 0, at = 0; group < this.count; ++group) {
      for (let node = nodes[group]!; node !== 0; node = parentOf[node]!) {
        const id = nodeFunction[node]!;
        if (keeps[id] === 1) functions[at++] = id;
      }
      if (cut[group] === 1) functions[at++] = this.cutFunction;
    }
    return { start, functions };
  }
}

function parents({ frame, jumps }: PageData["stacks"]): Uint32Array {
  const parentOf = new Uint32Array(frame.length + 1);
  for (let node = 1; node < parentOf.length; ++node) parentOf[node] = node - 1;
  for (let i = 0; i < jumps.length; i += 2) parentOf[jumps[i]!] = jumps[i + 1]!;
  return parentOf;
}

/** Unpacks base64 of gzip. Rejects with an error that can be shown. */
async function unpack(packed: string): Promise<Uint8Array<ArrayBuffer>> {
  if (typeof DecompressionStream === "undefined") {
    throw new Error("This browser cannot unpack the data. Use a version of 2023 or later.");
  }
  const binary = atob(packed);
  const bytes = new Uint8Array(binary.length);
  for (let at = 0; at < bytes.length; ++at) bytes[at] = binary.charCodeAt(at);
  const unpacked = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("gzip"));
  return new Uint8Array(await new Response(unpacked).arrayBuffer());
}

/** Escapes the invisible characters of all texts in `value`: they can make a name look like another one. */
function visible<T>(value: T): T {
  if (typeof value === "string") {
    const escaped = value.replace(/[\p{Cc}\p{Cf}\u2028\u2029]/gu, (character) => `\\u{${character.codePointAt(0)!.toString(16)}}`);
    return escaped as T;
  }
  if (Array.isArray(value)) return value.map(visible) as T;
  if (typeof value !== "object" || value === null) return value;
  return Object.fromEntries(Object.entries(value).map(([key, member]) => [key, visible(member)])) as T;
}

const kTypes = { Uint8Array, Uint16Array, Uint32Array, Float64Array };

/** Reads the data of the page: JSON that ends with a zero, and columns. Rejects with an error that can be shown. */
export async function readData(packed: string): Promise<Data> {
  const bytes = await unpack(packed);
  const end = bytes.indexOf(0);
  const { columns, ...page } = JSON.parse(new TextDecoder().decode(bytes.subarray(0, end)));
  if (page.format !== "memleak-page" || page.version !== 2) {
    throw new Error(`This page shows memleak-page version 2, not ${page.format} ${page.version}.`);
  }
  const found = visible(page);
  let at = end + 1;
  for (const { name, type, length } of columns as { name: string; type: keyof typeof kTypes; length: number }[]) {
    at = Math.ceil(at / 8) * 8;
    const column = new kTypes[type](bytes.buffer, at, length);
    at += column.byteLength;
    const [object, member] = name.split(".") as [string, string];
    (found[object] ??= {})[member] = column;
  }
  return new Data(found as PageData);
}
