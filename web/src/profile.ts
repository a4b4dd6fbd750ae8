// The document that the page shows, format "memleak-profile" version 1, and what is derived from it
// once: which frames count as the same function, and how much a group weighs. No DOM here.

export interface Report {
  path: string;
  made: number; // seconds since the epoch
  complete: boolean;
  damagedLines: number;
  backtraceSize: number;
}

export interface Totals {
  bytes: number;
  groups: number;
  blocks: number;
  listedBytes: number;
  listedGroups: number;
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
  hint?: string; // the file that would give (more) symbols; absent in documents of older programs
}

export interface Frame {
  library: number; // index, -1 for none
  offset: number;
  name: string;
  function: string;
  file: string;
  line: number;
  inlined: boolean;
}

/** What the ages say of growth; the program judges it, here it is only shown. */
export type Pattern = "growing" | "settled" | "recent" | "unknown";

export type Status = "grew" | "shrank" | "new" | "gone" | "same" | "unknown";

export interface Group {
  kind: "native" | "java";
  size: number;
  count: number;
  total: number;
  ages: number[]; // seconds, at most 30
  /** The ages are certainly those of this group's blocks; absent in documents of older programs. */
  ownAges?: boolean;
  pattern?: Pattern; // absent in documents of older programs
  stack: number[]; // frames, innermost first
  atMost?: number; // bytes, where the list was cut before it may have held more than `total`
  before?: { count: number; total: number; atMost?: number };
  status?: Status;
}

export interface ProfileDocument {
  format: string;
  version: number;
  report: Report;
  totals: Totals;
  libraries: Library[];
  frames: Frame[];
  groups: Group[];
  base?: { report: Report; totals: Totals };
}

export type Measure = "bytes" | "count";

/** Bounds that a figure lies within, both included; Infinity where nothing bounds it. */
export interface Range {
  least: number;
  most: number;
}

/** Adds to both ends. */
export function widen(sum: Range, more: Range): void {
  sum.least += more.least;
  sum.most += more.most;
}

export function change(before: Range, after: Range): Range {
  return { least: after.least - before.most, most: after.most - before.least };
}

/** The part of a change that is certain: 0 where it may have gone either way. */
export function sure({ least, most }: Range): number {
  return least > 0 ? least : most < 0 ? most : 0;
}

/** What a group may hold at most is told as 2^64 - 1 when nothing is known; so much nobody has. */
const kUnbounded = 2 ** 63;

export class Profile {
  readonly isDiff: boolean;
  /** Of each frame: a number that frames of one function of one library share. */
  readonly functionOf: Int32Array;
  /** The oldest age of all, in seconds: about as long as recording took. */
  readonly span: number;

  constructor(readonly doc: ProfileDocument) {
    this.isDiff = doc.base !== undefined;
    this.functionOf = new Int32Array(doc.frames.length);
    const known = new Map<string, number>();
    doc.frames.forEach((frame, index) => {
      const key = `${frame.library} ${frame.name}`;
      let id = known.get(key);
      if (id === undefined) known.set(key, (id = index));
      this.functionOf[index] = id;
    });
    let span = 1;
    for (const group of doc.groups) for (const age of group.ages) if (age > span) span = age;
    this.span = span;
  }

  libraryName(frame: Frame): string {
    return this.doc.libraries[frame.library]?.name ?? "";
  }

  /** What the group holds now, between bounds where a report's list was cut. */
  after(group: Group, measure: Measure): Range {
    return bounds(group, group, measure);
  }

  /** The same of the older report; as much as now without one. */
  before(group: Group, measure: Measure): Range {
    return bounds(group, this.isDiff && group.before ? group.before : group, measure);
  }

  /** By how much the group has grown. */
  growth(group: Group, measure: Measure = "bytes"): Range {
    return change(this.before(group, measure), this.after(group, measure));
  }
}

function bounds(
  { size }: Group,
  held: { count: number; total: number; atMost?: number },
  measure: Measure,
): Range {
  const listed = measure === "bytes" ? held.total : held.count;
  if (held.atMost === undefined) return { least: listed, most: listed };
  if (held.atMost >= kUnbounded) return { least: listed, most: Infinity };
  const most = measure === "bytes" ? held.atMost : Math.floor(held.atMost / Math.max(1, size));
  return { least: listed, most: Math.max(listed, most) };
}

/** Reads the document that the page carries; throws with a text for people. */
export function readProfile(text: string): Profile {
  const doc = JSON.parse(text) as ProfileDocument;
  if (doc.format !== "memleak-profile" || doc.version !== 1) {
    throw new Error(`This page shows memleak-profile version 1, not ${doc.format} ${doc.version}.`);
  }
  return new Profile(doc);
}

/** Whether a text matches what was typed: a part of it in any case, or a /regular expression/. */
export function matcher(typed: string): (text: string) => boolean {
  const expression = /^\/(.+)\/$/.exec(typed);
  if (expression) {
    try {
      const pattern = new RegExp(expression[1]!, "i");
      return (text) => pattern.test(text);
    } catch {
      return () => false; // not finished typing
    }
  }
  const part = typed.toLowerCase();
  return (text) => text.toLowerCase().includes(part);
}

/** The frames whose function, library or source file matches. */
export function matchingFrames(profile: Profile, typed: string): Set<number> {
  const matches = matcher(typed);
  const found = new Set<number>();
  profile.doc.frames.forEach((frame, index) => {
    if (matches(frame.name) || matches(profile.libraryName(frame)) || matches(frame.file)) {
      found.add(index);
    }
  });
  return found;
}
