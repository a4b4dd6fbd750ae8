// SPDX-License-Identifier: Apache-2.0
// The document that the page shows, format "memleak-profile" version 1, and what is computed from it
// once. No DOM here.

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

/** What the ages show about growth, as judged by the program. */
export type Pattern = "growing" | "settled" | "recent" | "unknown";

/** Unknown: a report that omits groups may hide a part of the group. */
export type Status = "grew" | "shrank" | "new" | "gone" | "same" | "unknown";

export interface Group {
  kind: "native" | "java";
  size: number; // of the smallest block
  maxSize?: number; // of the largest block; absent in documents of older programs
  ageCounts?: number[]; // blocks by age: of a profile, empty for a report
  count: number;
  total: number;
  ages: number[]; // seconds, at most 30; of a profile the lowest and the highest
  /** The ages are certainly those of this group's blocks; absent in documents of older programs. */
  ownAges?: boolean;
  pattern?: Pattern; // absent in documents of older programs
  stack: number[]; // frames, innermost first
  before?: { count: number; total: number };
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

export class Profile {
  readonly isDiff: boolean;
  /** By frame: a number that all frames of one function of one library share. */
  readonly functionOf: Int32Array;
  /** The oldest age, in seconds: about the time that was recorded. */
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

  /** What the group holds in the later report. */
  after(group: Group, measure: Measure): number {
    return measure === "bytes" ? group.total : group.count;
  }

  /** What it holds in the earlier report; the same as now without one. */
  before(group: Group, measure: Measure): number {
    const held = this.isDiff && group.before ? group.before : group;
    return measure === "bytes" ? held.total : held.count;
  }

  /** By how many bytes it has grown; null if that is not known. */
  growth(group: Group): number | null {
    if (group.status === "unknown") return null;
    return this.after(group, "bytes") - this.before(group, "bytes");
  }
}

/** Parses the document of the page. Throws an error that can be shown. */
export function readProfile(text: string): Profile {
  const doc = JSON.parse(text) as ProfileDocument;
  if (doc.format !== "memleak-profile" || doc.version !== 1) {
    throw new Error(`This page shows memleak-profile version 1, not ${doc.format} ${doc.version}.`);
  }
  return new Profile(doc);
}

/** Matches texts against a part of them, ignoring case, or against a /regular expression/. */
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
