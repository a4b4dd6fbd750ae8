// SPDX-License-Identifier: Apache-2.0
// The head of the page: what is held by which program, in a line; and how the report was made.

import type { Data, Report } from "./data.js";
import { el, formatAge, formatBytes, formatCount, plural, signed } from "./dom.js";

export function summary(data: Data): HTMLElement {
  const { report, totals, base } = data;
  const held = formatBytes(totals.bytes);
  const program = programOf(report) ?? "Unknown program";
  const old = base && otherProgram(data) ? ` compared with ${programOf(base.report)}` : "";
  const change = base ? ` (${signed(totals.bytes - base.totals.bytes, formatBytes)}${old})` : "";
  document.title = `${program}: ${held} held${change}`;
  return el(
    "header",
    {},
    el("h1", {}, el("span", { class: "program" }, program), " holds ", el("b", {}, held), change),
    el("p", { class: "facts" }, facts(data).join(" · ")),
    data.nothingHeld ? el("p", { class: "reason" }, data.nothingHeld) : null,
    flaws(data),
    el(
      "details",
      {},
      el("summary", {}, "How this was made"),
      origin(base ? "New report" : "Report", report),
      base ? origin("Old report", base.report) : null,
      el("p", { class: "hint" }, "Allocation wrappers such as operator new, xmalloc and g_malloc are removed from the inner end of each stack."),
      missingSymbols(data),
    ),
  );
}

function facts(data: Data): string[] {
  const { report, totals, base } = data;
  const { process } = report;
  const exact = `${formatCount(totals.bytes)} bytes in ${plural(totals.blocks, "block")}`;
  const java = totals.javaBytes > 0 ? [`and ${formatBytes(totals.javaBytes)} Java-native in ${plural(totals.javaGroups, "stack")}`] : [];
  const recorded = process && process.kinds.length > 0 ? `recorded for ${formatAge(process.written - process.since)}` : "recording was off";
  const when = process ? `${source(report)}, ${recorded}` : source(report);
  const old = base ? [`before: ${formatBytes(base.totals.bytes)} (${formatCount(base.totals.bytes)} bytes), ${oldSource(data, base.report)}`] : [];
  // A difference counts the call sites of a function as one stack.
  const held = data.groups.count.filter((count, group) => count > 0 && !data.isJava(group)).length;
  const stacks = plural(base ? held + totals.unlistedGroups : totals.groups, "stack");
  return [exact, stacks, ...java, when, ...old];
}

/** The source of the old report, without what both reports share. */
function oldSource(data: Data, old: Report): string {
  const [now, before] = [data.report.process, old.process];
  if (now && before && now.pid === before.pid && now.host === before.host) return formatDate(old.made);
  return `${otherProgram(data) ? `${programOf(old)}, ` : ""}${source(old)}`;
}

function source({ process, path, made }: Report): string {
  return `${process ? `pid ${process.pid} on ${process.host}, ` : `report ${fileName(path)}, written `}${formatDate(made)}`;
}

function programOf({ process }: Report): string | null {
  return process ? process.name || fileName(process.program) : null;
}

/** Whether both reports tell their program, and it is not the same. */
function otherProgram({ report, base }: Data): boolean {
  return !!base?.report.process && !!report.process && programOf(base.report) !== programOf(report);
}

/** What is missing from the figures. */
function flaws(data: Data): HTMLElement | null {
  const { report, totals, base } = data;
  const texts: string[] = [];
  if (otherProgram(data)) texts.push(`These are reports of two programs: ${programOf(base!.report)} and ${programOf(report)}.`);
  for (const { complete, damagedLines, path } of base ? [report, base.report] : [report]) {
    if (!complete) texts.push(`${fileName(path)} is truncated: its end is missing.`);
    if (damagedLines > 0) texts.push(`${plural(damagedLines, "damaged line")} of ${fileName(path)} left out.`);
  }
  const unrecorded = report.process?.unrecorded ?? 0;
  if (unrecorded > 0) texts.push(`${plural(unrecorded, "block")} could not be recorded for lack of memory.`);
  if (totals.unlistedGroups > 0 || totals.unlistedBytes > 0) {
    texts.push(
      `The report does not list ${plural(totals.unlistedGroups, "smaller stack")} of ` +
        `${formatBytes(totals.unlistedBytes)} (${formatCount(totals.unlistedBytes)} bytes).`,
    );
  }
  return texts.length === 0 ? null : el("p", { class: "flawed" }, texts.join(" "));
}

function origin(title: string, report: Report): HTMLElement {
  const { process } = report;
  const state = report.complete ? "complete" : "truncated: its end is missing";
  const damage =
    report.damagedLines === 0 ? "no damaged lines" : `${plural(report.damagedLines, "damaged line")} left out`;
  const how = process
    ? process.kinds.length === 0 ? "; recording was off" : `; recorded from ${formatDate(process.since)}: ${process.kinds.join(", ")}, stacks by ${process.unwind}`
    : "; a report of this kind contains neither the program nor all ages, and at most 1000 stacks, one for each block size";
  return el(
    "div",
    { class: "origin" },
    el(
      "p",
      {},
      `${title} `,
      el("code", {}, report.path),
      `, written ${formatDate(report.made)}; at most ${report.backtraceSize} frames of each stack; ${state}; ${damage}${how}.`,
    ),
    process
      ? el("p", {}, "Program ", el("code", {}, process.program), process.arguments.length > 1 ? ", arguments " : "", el("code", {}, process.arguments.slice(1).join(" ")))
      : null,
  );
}

function missingSymbols({ libraries }: Data): HTMLElement | null {
  const missing = libraries.filter((library) => library.hint !== "");
  if (missing.length === 0) return null;
  return el(
    "details",
    {},
    el("summary", {}, `${plural(missing.length, "file")} could not be read for symbols`),
    el(
      "ul",
      {},
      ...missing.map(({ hint, path, name }) => el("li", {}, el("code", {}, hint), hint === path ? "" : ` of ${name}`)),
    ),
  );
}

function formatDate(seconds: number): string {
  return new Date(seconds * 1000).toLocaleString(undefined, { ...{ year: "numeric", month: "short", day: "numeric" }, ...{ hour: "numeric", minute: "2-digit", second: "2-digit", timeZoneName: "short" } });
}

function fileName(path: string): string {
  return path.slice(path.lastIndexOf("/") + 1);
}
