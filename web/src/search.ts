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
  const { parentOf, nodeFunction, groups: { node, total } } = data;
  const functions = new Uint8Array(data.functions.length);
  let functionCount = 0;
  data.functions.forEach((info, id) => {
    if (info.lower !== "" && matches(info)) functionCount += functions[id] = 1;
  });
  // By node: whether a function from the root to it matches. A parent comes before its nodes.
  const nodes = new Uint8Array(parentOf.length);
  for (let at = 1; at < nodes.length; ++at) nodes[at] = functions[nodeFunction[at]!]! | nodes[parentOf[at]!]!;
  const groups = new Uint8Array(data.count);
  let [groupCount, bytes] = [0, 0];
  for (let group = 0; group < data.count; ++group) {
    if (nodes[node[group]!] === 0) continue;
    groups[group] = 1;
    ++groupCount;
    bytes += total[group]!;
  }
  return { typed, matches, problem, functions, groups, functionCount, groupCount, bytes };
}
