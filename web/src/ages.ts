// SPDX-License-Identifier: Apache-2.0
// The ages of a group's blocks: a small bar on a logarithmic scale, and in words.

import type { Data } from "./data.js";
import { formatAge, formatCount } from "./dom.js";

const kWidth = 64; // pixels of a bar

const kMeaning = {
  growing: "Old blocks stay and new ones are added: it keeps growing.",
  settled: "No young blocks are held: allocated once and kept.",
  recent: "No old blocks are held: it began to grow recently, or its blocks are short-lived.",
  unknown: "Too few ages to see whether it grows.",
};

/** "growing", "perhaps growing", or "" if unknown. */
export function patternWord(data: Data, group: number): string {
  const pattern = data.pattern(group);
  if (pattern === "unknown") return "";
  return data.groups.ownAges[group] === 1 ? pattern : `perhaps ${pattern}`;
}

/** "2s–3m", "about 2s–3m", or a dash. */
export function ageText(data: Data, group: number): string {
  const [youngest, oldest] = [data.groups.youngest[group]!, data.groups.oldest[group]!];
  if (Number.isNaN(oldest)) return "–";
  const range = formatAge(youngest) === formatAge(oldest) ? formatAge(oldest) : `${formatAge(youngest)}–${formatAge(oldest)}`;
  return data.groups.ownAges[group] === 1 ? range : `about ${range}`;
}

/** The ages that have blocks, from the youngest on: an index of the bounds, and the number of blocks. */
function agesOf({ ages }: Data, group: number): [age: number, blocks: number][] {
  const list: [number, number][] = [];
  for (let at = ages.begin[group]!; at < ages.begin[group + 1]!; ++at) list.push([ages.age[at]!, ages.blocks[at]!]);
  return list;
}

/** "1s to 4s: 700", for each age that has blocks. */
export function ageCounts(data: Data, group: number): string[] {
  return agesOf(data, group).map(([age, blocks]) => {
    const [from, to] = [data.ageBounds[age]!, data.ageBounds[age + 1]];
    const range = to === undefined ? `${formatAge(from)} and older` : `${formatAge(from)} to ${formatAge(to)}`;
    return `${range}: ${formatCount(blocks)}`;
  });
}

/** How many of the group's blocks have a known age. */
export function agedBlocks(data: Data, group: number): number {
  return agesOf(data, group).reduce((sum, [, blocks]) => sum + blocks, 0);
}

/** What the ages show about growth, in a sentence. */
export function ageSentence(data: Data, group: number): string {
  const pattern = data.pattern(group);
  const sure = pattern === "unknown" || data.groups.ownAges[group] === 1;
  return `${sure ? "" : "Perhaps: "}${kMeaning[pattern]}`;
}

/** Bars from young (left) to old, on the scale of the whole report. None for one block. */
export function ageBar(data: Data, group: number): Node | string {
  const ages = agesOf(data, group);
  if (data.groups.count[group]! < 2 || ages.length === 0) return "";
  const counts = new Array<number>(data.ageScale).fill(0);
  for (const [age, blocks] of ages) counts[age] = blocks;
  const most = Math.max(...counts);
  const [step, height] = [Math.floor(kWidth / counts.length), 16];
  let path = "";
  counts.forEach((count, index) => {
    if (count === 0) return;
    const bar = Math.max(2, Math.round((height * count) / most));
    path += `M${index * step} ${height}v-${bar}h${step - 1}v${bar}z`;
  });
  const width = counts.length * step;
  const svg = svgElement("svg", { class: "ages", viewBox: `0 0 ${width} ${height}`, width, height });
  svg.setAttribute("role", "img");
  svg.setAttribute("aria-label", `Blocks by age: ${ageCounts(data, group).join("; ")}`);
  const title = svgElement("title", {});
  title.textContent = ageCounts(data, group).join("\n");
  svg.append(title, svgElement("path", { class: "scale", d: `M0 ${height - 0.5}h${width}` }), svgElement("path", { d: path }));
  return svg;
}

export function svgElement(name: string, attributes: Record<string, string | number>): SVGElement {
  const element = document.createElementNS("http://www.w3.org/2000/svg", name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, String(value));
  return element;
}

/** A figure of the ages' meaning for the growth tab: the words of each pattern. */
export function patternMeaning(pattern: keyof typeof kMeaning): string {
  return kMeaning[pattern];
}
