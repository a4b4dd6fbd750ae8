// SPDX-License-Identifier: Apache-2.0
// The search: which functions and groups match the typed text. No DOM here.

import type { Data, FunctionInfo } from "./data.js";

export interface Found {
  typed: string;
  matches: Matcher;
  problem: string; // of the pattern; "" for none
  functions: Uint8Array; // 1 for a match, by function
  groups: Uint8Array; // 1 for a group with a match on its stack
  functionCount: number;
  groupCount: number;
  bytes: number;
}

type Matcher = (info: Pick<FunctionInfo, "name" | "lower">) => boolean;

/** Whether the text is a /regular expression/. These can take very long. */
export function isPattern(typed: string): boolean {
  return /^\/.+\/$/.test(typed);
}

/** Matches functions with a part of their texts, with a /regular expression/, or with an =exact name. Throws for an invalid one. */
function matcher(typed: string): Matcher {
  if (typed.startsWith("=")) return ({ name }) => name === typed.slice(1);
  if (isPattern(typed)) {
    const pattern = new RegExp(typed.slice(1, -1), "im");
    return ({ lower }) => pattern.test(lower);
  }
  const part = typed.toLowerCase();
  return ({ lower }) => lower.includes(part);
}

/** The functions whose name, library or source file matches; null for an empty text. */
export function search(data: Data, typed: string): Found | null {
  if (typed === "") return null;
  let problem = "";
  let matches: Matcher = () => false;
  try {
    matches = matcher(typed);
  } catch (error) {
    problem = String(error).replace(/^.*: /, "");
  }
  const functions = Uint8Array.from(data.functions, (info) => (info.lower !== "" && matches(info) ? 1 : 0));
  const groups = new Uint8Array(data.count);
  const { start, functions: stacks } = data.stacks;
  let [groupCount, bytes] = [0, 0];
  for (let group = 0; group < data.count; ++group) {
    const end = start[group + 1]!;
    for (let at = start[group]!; at < end; ++at) {
      if (functions[stacks[at]!] === 0) continue;
      groups[group] = 1;
      ++groupCount;
      bytes += data.groups.total[group]!;
      break;
    }
  }
  const functionCount = functions.reduce((sum, match) => sum + match, 0);
  return { typed, matches, problem, functions, groups, functionCount, groupCount, bytes };
}
