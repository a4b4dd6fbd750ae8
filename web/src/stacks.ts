// SPDX-License-Identifier: Apache-2.0
// The tab of stacks: the groups of blocks with one stack, as "function ← caller ← caller".

import { ageBar, ageCounts, agedBlocks, ageSentence, ageText, patternWord } from "./ages.js";
import type { Data } from "./data.js";
import { el, formatBytes, formatCount, formatShare, longText, plural, shareBar, signed } from "./dom.js";
import { changeText } from "./functions.js";
import { cutText } from "./names.js";
import { type Column, Table } from "./table.js";

const kCallersShown = 8;
const kRowLimit = 400;
const kNameLimit = 300;

export class StacksTab {
  readonly element: HTMLElement;
  private readonly table: Table;
  private readonly sums = el("p", { class: "row-count", role: "status" });
  private hideUnresolved = false;
  private readonly rows: number[];

  /** "changes": all stacks except those whose status is "same". */
  constructor(
    private readonly data: Data,
    id: "stacks" | "changes",
    private readonly pick: (id: number) => void,
  ) {
    const all = [...Array(data.count).keys()];
    this.rows = id === "stacks" ? all : all.filter((group) => data.status(group) !== "same");
    this.table = new Table({
      rows: this.rows,
      ...(id === "changes" && { empty: "No stack is known to have changed." }),
      ...{ id, caption: "Blocks by call stack", main: "where" },
      columns: this.columns(),
      sortBy: data.isDiff ? "growth" : "total",
      label: (group) => `Stack ${formatCount(group + 1)}: frames and ages`,
      detail: (group) => this.detail(group),
    });
    this.element = el("div", {}, this.sums, this.table.element);
  }

  update(wanted: (group: number) => boolean, hideUnresolved: boolean): void {
    this.hideUnresolved = hideUnresolved;
    this.table.show(wanted);
    this.sums.textContent = this.sumText(this.rows.filter(wanted));
  }

  private columns(): Column[] {
    const { data } = this;
    const { groups } = data;
    const whole = data.totals.listedBytes + data.totals.javaBytes;
    const columns: Column[] = [
      {
        ...{ key: "total", title: "Bytes", hint: "Bytes of all blocks", number: true },
        value: (group) => groups.total[group]!,
        cell: (group) => formatBytes(groups.total[group]!),
      },
      {
        ...{ key: "share", title: "%", hint: "Share of all bytes", number: true },
        value: (group) => groups.total[group]!,
        cell: (group) =>
          el(
            "span",
            { class: "barred" },
            // The largest fills the bar: shares of single stacks are small.
            shareBar(groups.total[group]! / Math.max(1, groups.total[0]!)),
            el("span", {}, formatShare(groups.total[group]!, whole)),
          ),
      },
      {
        ...{ key: "where", title: "Allocated by ← called by", hint: "The innermost functions", number: false },
        value: (group) => this.names(group).join(" "),
        cell: (group) => this.where(group),
      },
      {
        ...{ key: "count", title: "Blocks", hint: "Number of blocks", number: true },
        value: (group) => groups.count[group]!,
        cell: (group) => formatCount(groups.count[group]!),
      },
      {
        ...{ key: "size", title: "Size", hint: "Bytes of one block: smallest to largest", number: true },
        value: (group) => groups.size[group]!,
        cell: (group) => this.sizeText(group),
      },
    ];
    if (data.isDiff) {
      columns.push(
        {
          ...{ key: "growth", title: "Change", hint: "Bytes since the older report", number: true },
          value: (group) => (data.status(group) === "unknown" ? NaN : groups.total[group]! - groups.beforeTotal![group]!),
          cell: (group) =>
            data.status(group) === "unknown" ? "–" : changeText(groups.total[group]! - groups.beforeTotal![group]!),
        },
        {
          ...{ key: "status", title: "Status", hint: "Compared with the older report", number: false },
          value: (group) => data.status(group),
          cell: (group) => el("span", { "data-status": data.status(group) }, data.status(group)),
        },
      );
    }
    columns.push({
      ...{ key: "age", title: "Ages", hint: "Blocks by age, from young to old; then youngest to oldest", number: false },
      value: (group) => groups.oldest[group]!,
      cell: (group) => el("span", { class: "age-cell" }, ageBar(data, group), el("span", {}, `${ageText(data, group)} ${patternWord(data, group)}`)),
    });
    return columns;
  }

  /** Short names, innermost first, without the unresolved ones if these are hidden. */
  private names(group: number): string[] {
    const { groups, functions, parentOf, nodeFunction } = this.data;
    const names: string[] = [];
    let node = groups.node[group]!;
    for (; node !== 0 && names.length < kCallersShown; node = parentOf[node]!) {
      const { short, unresolved } = functions[nodeFunction[node]!]!;
      // Skip repeated calls of one function.
      if (names.at(-1) !== short && !(unresolved && this.hideUnresolved)) names.push(short);
    }
    if (node === 0 && groups.cut[group] === 1) names.push(functions[this.data.cutFunction]!.name);
    return names;
  }

  private where(group: number): HTMLElement {
    const [first = "(no stack)", ...callers] = this.names(group);
    const rest = callers.map((name) => ` ← ${name}`).join("");
    const text = cutText(first, kNameLimit);
    return el("span", { class: "name" }, el("code", {}, text), el("code", { class: "callers" }, cutText(rest, kRowLimit)));
  }

  private sizeText(group: number): string {
    const { size, larger } = this.data.groups;
    const smallest = formatBytes(size[group]!);
    return larger[group]! > 0 ? `${smallest}–${formatBytes(size[group]! + larger[group]!)}` : smallest;
  }

  /** The sums of the shown groups. */
  private sumText(rows: number[]): string {
    const { data } = this;
    let [held, growth, notJudged, gone] = [0, 0, 0, 0];
    for (const group of rows) {
      held += data.groups.total[group]!;
      if (data.groups.count[group] === 0) ++gone;
      if (data.status(group) === "unknown") ++notJudged;
      else growth += data.after(group, "bytes") - data.before(group, "bytes");
    }
    const which = rows.length === data.count ? "" : ` of ${formatCount(data.count)}`;
    const verb = rows.length - gone === 1 && which === "" ? "stack holds" : "stacks hold";
    const text = `${formatCount(rows.length - gone)}${which} ${verb} ${formatBytes(held)} (${formatCount(held)} bytes)`;
    if (!data.isDiff) return text;
    const rest = notJudged === 0 ? "" : `, without ${plural(notJudged, "stack")} not judged`;
    return `${text}${gone > 0 ? `, ${formatCount(gone)} ${gone === 1 ? "holds" : "hold"} nothing now` : ""}; change: ${signed(growth, formatBytes)}${rest}`;
  }

  private detail(group: number): HTMLElement {
    const { data } = this;
    const frames = data.framesOf(group);
    const counts = ageCounts(data, group);
    const ages = agedBlocks(data, group) === data.groups.count[group]! ? "Blocks by age" : `Ages of ${formatCount(agedBlocks(data, group))} of ${plural(data.groups.count[group]!, "block")}`;
    const list = el("ol", { class: "stack" }, ...Array.from(frames, (frame) => this.frame(frame)));
    const cut = data.groups.cut[group] === 1 ? data.functions[data.cutFunction]!.name : null;
    return el(
      "div",
      {},
      el("p", {}, this.figures(group)),
      data.groups.count[group]! > 1 && counts.length > 0
        ? el("p", {}, `${ageSentence(data, group)} ${ages}: ${counts.join("; ")}.`)
        : null,
      list,
      cut ? el("p", { class: "hint" }, `${cut}: its outer frames are missing`) : null,
    );
  }

  /** The figures of both reports in words. */
  private figures(group: number): string {
    const { groups } = this.data;
    const held = (count: number, total: number) => `${plural(count, "block")}, ${formatCount(total)} bytes`;
    const kind = this.data.isJava(group) ? "Java-native: " : "";
    const [size, largest] = [groups.size[group]!, groups.size[group]! + groups.larger[group]!];
    const range = largest > size ? `${formatCount(size)} to ${formatCount(largest)} bytes` : plural(size, "byte");
    const text = `${kind}${held(groups.count[group]!, groups.total[group]!)}, of ${range} each`;
    if (!this.data.isDiff) return `${text}.`;
    const before = held(groups.beforeCount![group]!, groups.beforeTotal![group]!);
    const judged = this.data.status(group) === "unknown" ? " Not judged: one report omits stacks." : "";
    return `${text}; before: ${before}.${judged}`;
  }

  private frame(frame: number): HTMLElement {
    const { data } = this;
    const { line, address, unresolved, inlined } = data.frames;
    const id = data.frameFunction(frame);
    const library = data.libraryName(data.functions[id]!.library);
    const file = data.frameFile(frame);
    const place = file === "" ? "" : `${file}:${line[frame]}`;
    const known = unresolved[frame] === 0 && library !== "";
    const callers = el("button", {
      ...{ type: "button", class: "link more", title: "Callers and callees", "aria-label": "Callers and callees" },
      onclick: () => this.pick(id),
    }, "callers");
    return el(
      "li",
      {},
      el("code", {}, longText(data.frameName(frame), kNameLimit)),
      inlined[frame] === 1 ? el("em", {}, " inlined") : null,
      place === "" ? null : el("span", { class: "source" }, " ", longText(place, kNameLimit)),
      known ? el("small", {}, ` ${library}+0x${address[frame]!.toString(16)}`) : null,
      " ",
      callers,
    );
  }
}
