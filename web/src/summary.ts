// SPDX-License-Identifier: Apache-2.0
// The head of the page: what is held, what is not listed, and the properties of the report.

import { el, formatBytes, formatCount, plural, signed } from "./dom.js";
import type { Library, Profile, Report, Totals } from "./profile.js";

export function summary(profile: Profile): HTMLElement {
  const { doc } = profile;
  const { totals, base } = doc;
  const held = formatBytes(totals.bytes);
  const change = base ? ` (${signed(totals.bytes - base.totals.bytes, formatBytes)})` : "";
  const java = totals.javaBytes > 0 ? ` and ${formatBytes(totals.javaBytes)} Java-native` : "";
  document.title = `${held} held${change} – ${fileName(doc.report.path)}`;
  return el(
    "header",
    {},
    el("h1", {}, `${held} held${change}`, java === "" ? null : el("small", {}, java)),
    figures(totals, base?.totals),
    base ? changes(profile) : null,
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
    const change = old === undefined ? null : el("small", { title: `${formatCount(old)} bytes` }, `before: ${formatBytes(old)}`);
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
    "Not listed",
    totals.unlistedBytes,
    plural(totals.unlistedGroups, "smaller group"),
    before?.unlistedBytes,
  );
  if (totals.javaGroups > 0 || (before && before.javaGroups > 0)) {
    add("java", "Java-native, in addition", totals.javaBytes, plural(totals.javaGroups, "group"),
      before?.javaBytes);
  }
  return list;
}

/** What the listed groups grew and shrank by, and how many are not judged. */
function changes(profile: Profile): HTMLElement {
  const sums = {
    grew: { bytes: 0, groups: 0 },
    shrank: { bytes: 0, groups: 0 },
    unknown: { bytes: 0, groups: 0 },
  };
  for (const group of profile.doc.groups) {
    const growth = profile.growth(group);
    if (group.status === "same") continue;
    const grew = group.status === "grew" || group.status === "new";
    const sum = sums[growth === null ? "unknown" : grew ? "grew" : "shrank"];
    sum.bytes += growth ?? Math.max(profile.before(group, "bytes"), group.total);
    ++sum.groups;
  }
  const list = el("dl", { class: "figures" });
  const add = (name: string, title: string, bytes: string, exact: string, groups: number) =>
    list.append(
      el(
        "div",
        { "data-figure": name },
        el("dt", {}, title),
        el("dd", { class: name }, bytes),
        el("dd", { class: "exact" }, `${exact} bytes`),
        el("dd", { class: "exact" }, plural(groups, "group")),
      ),
    );
  for (const [name, title] of [["grew", "Grew"], ["shrank", "Shrank"]] as const) {
    const { bytes, groups } = sums[name];
    add(name, title, signed(bytes, formatBytes), signed(bytes, formatCount), groups);
  }
  const { bytes, groups } = sums.unknown;
  if (groups === 0) return list;
  add("unknown", "Not judged", formatBytes(bytes), formatCount(bytes), groups);
  const note =
    "Groups are not judged (status: unknown) if one report lists them, or call sites of them, and the " +
    "other one omits groups. A report lists its 1000 largest groups; no option changes that.";
  return el("div", {}, list, el("p", { class: "hint" }, note));
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
  // Names such as "[heap]" are not files. Documents of older programs have no hints.
  const hintOf = ({ hint, found, path }: Library) =>
    hint ?? (!found && path.startsWith("/") ? path : "");
  const missing = profile.doc.libraries.filter((library) => hintOf(library) !== "");
  if (missing.length === 0) return null;
  return el(
    "details",
    {},
    el("summary", {}, `${plural(missing.length, "file")} could not be read for symbols`),
    el(
      "ul",
      {},
      ...missing.map((library) => {
        const file = hintOf(library);
        return el("li", {}, el("code", {}, file), file === library.path ? "" : ` of ${library.name}`);
      }),
    ),
  );
}

function fileName(path: string): string {
  return path.slice(path.lastIndexOf("/") + 1);
}
