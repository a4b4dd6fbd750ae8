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

export type Status = "grew" | "shrank" | "new" | "gone" | "same" | "unknown";

export interface Group {
  kind: "native" | "java";
  size: number;
  count: number;
  total: number;
  ages: number[]; // seconds, of at most 30 blocks
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

  /** What the group holds now. */
  after(group: Group, measure: Measure): number {
    return measure === "bytes" ? group.total : group.count;
  }

  /** What it held in the older report; the same as now when that is not known. */
  before(group: Group, measure: Measure): number {
    if (!group.before || group.status === "unknown") return this.after(group, measure);
    return measure === "bytes" ? group.before.total : group.before.count;
  }

  /** How many bytes the group has grown; NaN when it may merely have been left out of a list. */
  growth(group: Group): number {
    return group.status === "unknown" ? NaN : group.total - (group.before?.total ?? 0);
  }
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
