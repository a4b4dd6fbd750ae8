// SPDX-License-Identifier: Apache-2.0
// What the page shows, kept in the fragment of its URL: links and the browser's Back work.

import type { Measure } from "./data.js";

export const kTabs = ["functions", "flame", "stacks", "libraries", "growth"] as const;
export type Tab = (typeof kTabs)[number];

export interface State {
  tab: Tab;
  q: string; // the search
  f: number; // the function whose callers and callees are shown; -1 for none
  zoom: string; // path of the flame graph's node
  from: "callers" | "allocation"; // the flame graph's root
  by: Measure; // the width of boxes
  named: boolean; // unresolved frames are hidden
}

const kStart: State = { tab: "functions", q: "", f: -1, zoom: "", from: "callers", by: "bytes", named: false };

export function readState(): State {
  const parts = new URLSearchParams(location.hash.slice(1));
  const f = Number(parts.get("f") ?? -1);
  return {
    tab: kTabs.find((tab) => tab === parts.get("tab")) ?? kStart.tab,
    q: parts.get("q") ?? "",
    f: Number.isInteger(f) ? f : -1,
    zoom: /^[\d.]*$/.test(parts.get("zoom") ?? "") ? (parts.get("zoom") ?? "") : "",
    from: parts.get("from") === "allocation" ? "allocation" : "callers",
    by: parts.get("by") === "count" ? "count" : "bytes",
    named: parts.get("named") === "1",
  };
}

/** Writes the state. `push`: as a step of the browser's history. Calls no listener. */
export function writeState(state: State, push: boolean): void {
  const parts = new URLSearchParams();
  for (const key of Object.keys(kStart) as (keyof State)[]) {
    const value = state[key];
    if (value !== kStart[key]) parts.set(key, value === true ? "1" : String(value));
  }
  const url = `#${parts}`;
  if (url === (location.hash || "#")) return;
  if (push) history.pushState(null, "", url);
  else history.replaceState(null, "", url);
}
