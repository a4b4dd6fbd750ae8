// SPDX-License-Identifier: Apache-2.0
// The ages of a group's blocks, as a chart over the recorded time and in words.

import { el, formatAge, formatCount, plural } from "./dom.js";
import type { Group, Pattern } from "./profile.js";

const kBars = 24;

const kPatterns: Record<Pattern, string> = {
  growing: "Old blocks stay and new ones are added: it keeps growing.",
  settled: "No young blocks are held: allocated once and kept.",
  recent: "No old blocks are held: it began to grow recently, or its blocks are short-lived.",
  unknown: "Too few ages to see whether it grows.",
};

/** The pattern of the ages in a word; a dash if unknown. */
export function patternWord({ pattern, ownAges }: Group): string {
  if (pattern === undefined || pattern === "unknown") return "–";
  return ownAges ? pattern : `perhaps ${pattern}`;
}

/** The youngest and the oldest age. */
export function ageText(group: Group): string {
  if (group.ages.length === 0) return "–";
  const [youngest, oldest] = ageRange(group);
  const range = youngest === oldest ? formatAge(oldest) : `${formatAge(youngest)}–${formatAge(oldest)}`;
  return group.ownAges ? range : `about ${range}`;
}

export function ageRange(group: Group): [youngest: number, oldest: number] {
  let [youngest, oldest] = [Infinity, -Infinity];
  for (const age of group.ages) {
    youngest = Math.min(youngest, age);
    oldest = Math.max(oldest, age);
  }
  return [youngest, oldest];
}

/** Bars from the oldest (left) to the youngest age. All groups have the same time scale. */
export function ageChart(group: Group, span: number): HTMLElement {
  const bars = new Array<number>(kBars).fill(0);
  for (const age of group.ages) {
    const at = Math.floor((1 - age / span) * kBars);
    const bar = Math.min(kBars - 1, Math.max(0, at));
    bars[bar] = bars[bar]! + 1;
  }
  const highest = Math.max(1, ...bars);
  const pattern = group.pattern ?? "unknown";
  const text = `${group.ownAges || pattern === "unknown" ? "" : "Perhaps: "}${kPatterns[pattern]}`;
  const chart = el("div", { class: "ages", role: "img", "aria-label": `Ages: ${text}` });
  for (const count of bars) {
    const bar = el("i", { title: `${count} blocks` });
    bar.style.height = `${Math.round((100 * count) / highest)}%`;
    chart.append(bar);
  }
  const known = group.ages.length;
  const sample = group.ageCounts?.length
    ? `The youngest and the oldest of ${plural(group.count, "block")}`
    : !group.ownAges
    ? `Ages of ${plural(known, "block")} with this stack, perhaps of other sizes`
    : known < group.count
      ? `Ages of ${known} of ${formatCount(group.count)} blocks`
      : `Ages of all ${formatCount(known)} blocks`;
  return el(
    "figure",
    { class: "age-figure" },
    el("figcaption", {}, text),
    known > 0 ? chart : null,
    known > 0
      ? el(
          "div",
          { class: "age-axis" },
          el("span", {}, `${formatAge(span)} ago`),
          el("span", {}, `${sample}: ${ageText(group)}`),
          el("span", {}, "report"),
        )
      : null,
  );
}
