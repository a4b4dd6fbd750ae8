// The head of the page: what is held, what lies outside the list, and how the report was made.

import { el, formatBytes, formatChange, formatCount, plural, signed } from "./dom.js";
import { type Library, type Profile, type Range, type Report, sure, type Totals, widen } from "./profile.js";

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

/** What surely grew and shrank of the groups listed, and between which bounds the others lie. */
function changes(profile: Profile): HTMLElement {
  const bytes = { grew: 0, shrank: 0 };
  const groups = { grew: 0, shrank: 0, uncertain: 0 };
  const uncertain: Range = { least: 0, most: 0 };
  for (const group of profile.doc.groups) {
    const growth = profile.growth(group);
    if (group.status === "unknown") {
      widen(uncertain, growth);
      ++groups.uncertain;
    } else if (group.status !== "same") {
      const name = group.status === "grew" || group.status === "new" ? "grew" : "shrank";
      bytes[name] += sure(growth);
      ++groups[name];
    }
  }
  const list = el("dl", { class: "figures" });
  const add = (name: string, title: string, change: string, exact: string | null, count: number) =>
    list.append(
      el(
        "div",
        { "data-figure": name },
        el("dt", {}, title),
        el("dd", { class: name }, change),
        exact === null ? null : el("dd", { class: "exact" }, `${exact} bytes`),
        el("dd", { class: "exact" }, plural(count, "group")),
      ),
    );
  for (const name of ["grew", "shrank"] as const) {
    const exact = signed(bytes[name], formatCount);
    add(name, `Certainly ${name}`, signed(bytes[name], formatBytes), exact, groups[name]);
  }
  if (groups.uncertain > 0) {
    const change = formatChange(uncertain, formatBytes);
    add("uncertain", "Uncertain: lists not whole", change, null, groups.uncertain);
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
  // Others, such as "[heap]", are no files. Documents of older programs have no hints.
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
