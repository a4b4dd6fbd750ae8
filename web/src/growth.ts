// SPDX-License-Identifier: Apache-2.0
// The tab of growth. Of several reports: lines over time. Of two: what changed. Of one: what the ages
// of its blocks suggest.

import { patternMeaning, svgElement } from "./ages.js";
import { kPatterns, type Data, type Trend } from "./data.js";
import { el, formatAge, formatBytes, formatCount, formatShare, plural, shareBar, signed } from "./dom.js";
import { cutText, shortName } from "./names.js";
import type { Found } from "./search.js";

const kLines = 10;
const kNames = 6;
const kLabel = 14; // pixels between labels

/** The Growth tab without table and graph. Only stacks that match the search. */
export function growthView(data: Data, found: Found | null): HTMLElement {
  const groups = [...Array(data.count).keys()].filter((group) => !found || found.groups[group] === 1);
  const parts: (HTMLElement | null)[] = [];
  if (data.trend && data.trend.reports.length > 2) parts.push(trendView(data.trend, found));
  if (data.isDiff) parts.push(changes(data, groups));
  else parts.push(agesView(data, groups));
  return el("div", {}, ...parts);
}

/** What the listed groups grew and shrank by, and how many are not judged. */
function changes(data: Data, groups: number[]): HTMLElement {
  const sums = { grew: [0, 0], shrank: [0, 0], unknown: [0, 0] };
  for (const group of groups) {
    const status = data.status(group);
    if (status === "same" || status === "") continue;
    const growth = data.after(group, "bytes") - data.before(group, "bytes");
    const grew = status === "grew" || status === "new";
    const sum = sums[status === "unknown" ? "unknown" : grew ? "grew" : "shrank"];
    sum[0]! += status === "unknown" ? data.width(group, "bytes") : growth;
    ++sum[1]!;
  }
  const list = el("dl", { class: "figures" });
  const add = (name: keyof typeof sums, title: string, text: (bytes: number) => string) => {
    const [bytes, groups] = [sums[name][0]!, sums[name][1]!];
    list.append(
      el(
        "div",
        { "data-figure": name },
        el("dt", {}, title),
        el("dd", { class: name }, text(bytes)),
        el("dd", { class: "exact" }, `${name === "unknown" ? formatCount(bytes) : signed(bytes, formatCount)} bytes, ${plural(groups, "stack")}`),
      ),
    );
  };
  add("grew", "Grew", (bytes) => signed(bytes, formatBytes));
  add("shrank", "Shrank", (bytes) => signed(bytes, formatBytes));
  if (sums.unknown[1] === 0) return list;
  add("unknown", "Not judged", formatBytes);
  const note =
    "One report lists these stacks, or call sites of them, and the other one omits stacks. " +
    "So their change is not known (status: unknown)." +
    (data.report.process && data.base?.report.process ? "" : " A report lists its 1000 largest stacks; no option changes that.");
  return el("div", {}, list, el("p", { class: "hint" }, note));
}

function agesView(data: Data, groups: number[]): HTMLElement {
  const sums = new Map(kPatterns.map((pattern) => [pattern, { bytes: 0, groups: 0 }]));
  for (const group of groups) {
    const sum = sums.get(data.pattern(group))!;
    sum.bytes += data.groups.total[group]!;
    ++sum.groups;
  }
  const whole = data.totals.listedBytes + data.totals.javaBytes;
  const rows = (["growing", "recent", "settled", "unknown"] as const).map((pattern) => {
    const { bytes, groups } = sums.get(pattern)!;
    const bar = el("span", { class: "barred" }, shareBar(bytes / whole), el("span", {}, formatShare(bytes, whole)));
    const name = el("span", {}, el("b", {}, pattern), el("small", {}, ` ${patternMeaning(pattern)}`));
    return [name, formatBytes(bytes), bar, formatCount(groups)];
  });
  return el(
    "div",
    {},
    el(
      "p",
      { class: "hint" },
      "One report shows growth only by the ages of its blocks. To measure growth: ",
      el("code", {}, "memleak watch PID"),
      ", or ",
      el("code", {}, "memleak html NEW --diff OLD"),
      ".",
    ),
    plainTable("patterns", "Stacks by growth", [["Growth by age", "where"], ["Bytes", "number"], ["%", "number share"], ["Stacks", "number"]], rows),
  );
}

/** A table that is not sorted. A column has a title and a class. */
function plainTable(id: string, caption: string, columns: [string, string][], rows: (HTMLElement | string)[][]): HTMLElement {
  const heads = columns.map(([title, kind]) => el("th", { scope: "col", class: kind }, el("span", {}, title)));
  const lines = rows.map((cells) =>
    el("tr", { class: "row" }, ...cells.map((cell, at) => el("td", { class: columns[at]![1], "data-label": columns[at]![0] }, cell))),
  );
  return el("table", { id }, el("caption", {}, caption), el("thead", {}, el("tr", {}, ...heads)), el("tbody", {}, ...lines));
}

interface Line {
  name: string;
  title: string;
  values: (number | null)[];
  growth: number;
  slope: string;
}

/** The slope of the least-squares line through the values, in bytes per minute; null without one. */
function slope(seconds: number[], values: number[]): number | null {
  const mean = (list: number[]) => list.reduce((sum, value) => sum + value, 0) / list.length;
  const [middle, level] = [mean(seconds), mean(values)];
  const spread = mean(seconds.map((at) => (at - middle) ** 2));
  return spread > 0 ? (60 * mean(seconds.map((at, index) => (at - middle) * (values[index]! - level)))) / spread : null;
}

function trendView(trend: Trend, found: Found | null): HTMLElement {
  const matches = ({ stack, libraries }: Trend["groups"][number]) =>
    !found || stack.some((name, at) => found.matches({ name, lower: `${name}\n${libraries[at] ?? ""}`.toLowerCase() }));
  const seconds = trend.reports.map((report) => report.seconds);
  const totals = trend.reports.map((report) => report.bytes);
  const grown = trend.groups.filter((group) => (group.growth ?? 0) > 0 && matches(group)).slice(0, kLines);
  const lines = grown.map((group): Line => {
    const names = group.stack.slice(0, kNames).map(shortName);
    const line = group.line;
    const margin = line?.margin95 == null ? "" : ` ± ${formatBytes(Math.round(line.margin95))}`;
    return {
      name: names.join(" ← ") || "(no stack)",
      title: group.stack.join("\n"),
      values: group.values.map((value) => value?.total ?? null),
      growth: group.growth ?? 0,
      slope: line ? `${signed(Math.round(line.bytesPerMinute), formatBytes)}/min${margin}` : "–",
    };
  });
  const rows = lines.map((line, at) => [
    sparkline(at, seconds, line.values),
    signed(line.growth, formatBytes),
    line.slope,
    el("code", { title: cutText(line.title, 2000) }, cutText(line.name, 400)),
  ]);
  const whole = totals.at(-1)! - totals[0]!;
  const perMinute = slope(seconds, totals);
  const rate = perMinute === null ? "" : `, ${signed(Math.round(perMinute), formatBytes)}/min`;
  const columns: [string, string][] = [["Line", ""], ["Growth", "number"], ["Slope (95 %)", "number slope"], ["Allocated by ← called by", "where"]];
  const most =
    lines.length === 0
      ? [el("p", {}, found ? "No stack that matches the search grew." : "No stack grew.")]
      : [
          el("h3", {}, `The ${lines.length === 1 ? "stack" : plural(lines.length, "stack")} that grew most`),
          chart("Bytes of the stacks that grew most, over time", seconds, lines.map(({ values }) => values)),
          plainTable("trends", "Stacks that grew most, with their slopes", columns, rows),
        ];
  return el(
    "div",
    {},
    el("h3", {}, `All bytes in ${plural(trend.reports.length, "report")}: ${signed(whole, formatBytes)} in ${formatAge(seconds.at(-1)!)}${rate}`),
    chart("All bytes held over time", seconds, [totals]),
    ...most,
  );
}

/** Lines differ in colour and in dashes. */
function stroke(at: number): Record<string, string | number> {
  const dashes = ["none", "7 3", "2 3", "9 3 2 3"];
  return { class: `line line-${at % 5}`, "stroke-dasharray": dashes[Math.floor(at / 5) + (at % 2 ? 2 : 0)]! };
}

/** A line of the chart on a separate scale, with its number. */
function sparkline(at: number, seconds: number[], values: (number | null)[]): HTMLElement {
  const [width, height] = [80, 18];
  const highest = Math.max(1, ...values.map((value) => value ?? 0));
  const last = Math.max(seconds.at(-1)!, 1e-9);
  const svg = svgElement("svg", { viewBox: `0 0 ${width} ${height}`, width, height, "aria-hidden": "true" });
  const x = (index: number) => 1 + ((width - 2) * seconds[index]!) / last;
  svg.append(svgElement("path", { ...stroke(at), d: linePath(values, x, (value) => height - 1 - ((height - 2) * value) / highest) }));
  return el("span", { class: "barred" }, svg as unknown as HTMLElement, el("b", {}, String(at + 1)));
}

/** A line through the known values. Unknown ones are gaps. */
function linePath(values: (number | null)[], x: (at: number) => number, y: (value: number) => number): string {
  let path = "";
  values.forEach((value, at) => {
    if (value === null) return;
    path += `${at > 0 && values[at - 1] !== null ? "L" : "M"}${x(at).toFixed(1)} ${y(value).toFixed(1)}`;
  });
  return path;
}

/** Lines over time, on one scale from 0. */
function chart(title: string, seconds: number[], lines: (number | null)[][]): HTMLElement {
  const [width, height, left, bottom, top] = [Math.min(1000, window.innerWidth - 24), 220, 75, 24, 18];
  const right = lines.length > 1 ? 40 : 10; // has the lines' numbers
  const highest = Math.max(1, ...lines.flat().map((value) => value ?? 0));
  const last = Math.max(seconds.at(-1)!, 1e-9);
  const x = (at: number) => left + ((width - left - right) * seconds[at]!) / last;
  const y = (value: number) => height - bottom - ((height - bottom - top) * value) / highest;
  const svg = svgElement("svg", { class: "chart", viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": title });
  for (const share of [0, 0.5, 1]) {
    svg.append(svgElement("path", { class: "grid", d: `M${left} ${y(share * highest)}H${width - right}` }));
    svg.append(svgText(left - 8, y(share * highest) + 5, "end", formatBytes(Math.round(share * highest))));
  }
  for (const share of [0, 0.5, 1]) {
    const anchor = share === 0 ? "start" : share === 1 ? "end" : "middle";
    svg.append(svgText(left + share * (width - left - right), height - 4, anchor, formatAge(share * last)));
  }
  const labels: { end: number; y: number; text: string }[] = []; // of the lines' ends
  lines.forEach((values, index) => {
    svg.append(svgElement("path", { ...stroke(index), d: linePath(values, x, y) }));
    const value = values.at(-1);
    if (lines.length > 1 && value != null) labels.push({ end: y(value), y: y(value) + 4, text: String(index + 1) });
  });
  // From the bottom up, each at least a line above the one below it.
  labels.sort((a, b) => b.y - a.y || Number(b.text) - Number(a.text));
  let next = height - bottom + 4;
  for (const label of labels) {
    label.y = Math.min(label.y, next);
    next = label.y - kLabel;
  }
  // Labels above the chart move down.
  let least = kLabel - 2;
  for (const { end, y: wanted, text } of labels.reverse()) {
    const at = Math.max(wanted, least);
    svg.append(svgElement("path", { class: "grid", d: `M${width - right + 2} ${end}l14 ${at - 4 - end}` }));
    svg.append(svgText(width - right + 20, at, "start", text));
    least = at + kLabel;
  }
  return el("div", { class: "chart-frame" }, svg as unknown as HTMLElement);
}

function svgText(x: number, y: number, anchor: string, text: string): SVGElement {
  const element = svgElement("text", { x, y, "text-anchor": anchor });
  element.textContent = text;
  return element;
}
