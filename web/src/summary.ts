// The head of the page: what is held, what lies outside the list, and how the report was made.

import { el, formatBytes, formatChange, formatCount } from "./dom.js";
import type { Profile, Report, Totals } from "./profile.js";

export function summary(profile: Profile): HTMLElement {
  const { doc } = profile;
  const { totals, base } = doc;
  const held = formatBytes(totals.bytes);
  const change = base ? ` (${formatChange(totals.bytes - base.totals.bytes)})` : "";
  document.title = `${held} held${change} – ${fileName(doc.report.path)}`;
  return el(
    "header",
    {},
    el("h1", {}, `${held} held`, change === "" ? null : el("span", { class: "change" }, change)),
    base ? colourKey() : null,
    figures(totals, base?.totals),
    el(
      "details",
      { open: true },
      el("summary", {}, "How this was made"),
      origin(base ? "New report" : "Report", doc.report),
      base ? origin("Old report", base.report) : null,
      missingSymbols(profile),
    ),
  );
}

function figures(totals: Totals, before?: Totals): HTMLElement {
  const list = el("dl", { class: "figures" });
  const add = (name: string, title: string, bytes: number, rest: string, old?: number) => {
    const change = old === undefined ? null : el("small", {}, `before: ${formatBytes(old)}`);
    list.append(
      el(
        "div",
        { "data-figure": name },
        el("dt", {}, title),
        el("dd", {}, formatBytes(bytes)),
        el("dd", { class: "exact" }, `${formatCount(bytes)} bytes`),
        el("dd", { class: "exact" }, rest),
        change ? el("dd", {}, change) : null,
      ),
    );
  };
  add("total", "Held in all", totals.bytes, plural(totals.groups, "group"), before?.bytes);
  add(
    "listed",
    "Listed here",
    totals.listedBytes,
    `${plural(totals.listedGroups, "group")}, ${plural(totals.blocks, "block")}`,
    before?.listedBytes,
  );
  add(
    "unlisted",
    "Outside the list",
    totals.unlistedBytes,
    plural(totals.unlistedGroups, "smaller group"),
    before?.unlistedBytes,
  );
  if (totals.javaGroups > 0 || (before && before.javaGroups > 0)) {
    add("java", "Java-native, beside it", totals.javaBytes, plural(totals.javaGroups, "group"),
      before?.javaBytes);
  }
  return list;
}

function origin(title: string, report: Report): HTMLElement {
  const state = report.complete ? "complete" : "truncated: its end is missing";
  const damage =
    report.damagedLines === 0
      ? "no damaged lines"
      : `${plural(report.damagedLines, "damaged line")} left out`;
  const made = new Date(report.made * 1000).toLocaleString(undefined, {
    dateStyle: "medium",
    timeStyle: "medium",
  });
  const sound = report.complete && report.damagedLines === 0;
  return el(
    "p",
    { class: sound ? "origin" : "origin flawed" },
    `${title} `,
    el("code", {}, report.path),
    `, written ${made}; ${report.backtraceSize} frames kept of each stack; ${state}; ${damage}.`,
  );
}

function missingSymbols(profile: Profile): HTMLElement | null {
  const missing = profile.doc.libraries.filter((library) => !library.found && library.path !== "");
  if (missing.length === 0) return null;
  return el(
    "details",
    {},
    el("summary", {}, `${plural(missing.length, "file")} could not be read for symbols`),
    el("ul", {}, ...missing.map((library) => el("li", {}, el("code", {}, library.path)))),
  );
}

function colourKey(): HTMLElement {
  return el(
    "p",
    { class: "colour-key" },
    el("span", { class: "grew" }, "▲ grew"),
    " ",
    el("span", { class: "shrank" }, "▼ shrank"),
    " since the older report. A box is as wide as the larger of before and now.",
  );
}

function plural(count: number, noun: string): string {
  return `${formatCount(count)} ${noun}${count === 1 ? "" : "s"}`;
}

function fileName(path: string): string {
  return path.slice(path.lastIndexOf("/") + 1);
}
