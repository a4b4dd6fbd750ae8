// SPDX-License-Identifier: Apache-2.0
// The tab of functions: the sums of each function, and for one of them its callers and callees.

import type { Data } from "./data.js";
import { el, formatBytes, formatCount, formatShare, plural, shareBar, signed } from "./dom.js";
import { cutText } from "./names.js";
import type { Found } from "./search.js";
import { Table, type Column } from "./table.js";
import { CallTree, type TreeNode } from "./tree.js";

const kListed = 10; // callers or callees of a function, until more are asked for
const kNameLimit = 300;

/** Sums by function or library. */
export interface Sums {
  self: Float64Array; // bytes of the groups whose innermost frame it is
  total: Float64Array; // of the groups that have it on their stacks, each counted once
  blocks: () => Float64Array; // of these; computed by the first call
  selfChange: Float64Array; // in bytes, of the groups that are judged; NaN if none is
  change: Float64Array;
}

/** Sums of `count` keys. `keyOf` gives that of a function. */
export function sumsBy(data: Data, count: number, keyOf: (id: number) => number): Sums {
  const { parentOf, nodeFunction, groups } = data;
  const keys = Uint32Array.from(data.functions, (_, id) => keyOf(id));
  // By node: its key; `count` if a node above has the key too: a recursive function counts once.
  const keyOfNode = new Uint32Array(parentOf.length);
  const onPath = new Uint16Array(count); // how often each key is on the path to the node
  for (let node = 1; node < keyOfNode.length; ++node) {
    for (let last = node - 1; last !== parentOf[node]; last = parentOf[last]!) --onPath[keys[nodeFunction[last]!]!]!;
    const key = keys[nodeFunction[node]!]!;
    keyOfNode[node] = onPath[key]!++ > 0 ? count : key;
  }
  // Sums of the groups that end at a node with the key, and of those that end at or below one.
  const add = (value: (group: number) => number) => {
    const [self, total] = [new Float64Array(count), new Float64Array(count + 1)];
    const sums = new Float64Array(parentOf.length);
    for (let group = 0; group < data.count; ++group) {
      const node = groups.node[group]!;
      if (node === 0) continue;
      sums[node]! += value(group);
      self[keys[nodeFunction[node]!]!]! += value(group);
    }
    for (let node = sums.length - 1; node > 0; --node) {
      total[keyOfNode[node]!]! += sums[node]!;
      sums[parentOf[node]!]! += sums[node]!;
    }
    return { self, total: total.subarray(0, count) };
  };
  const bytes = add((group) => groups.total[group]!);
  let made: Float64Array | null = null;
  const blocks = () => (made ??= add((group) => groups.count[group]!).total);
  if (!data.isDiff) return { ...bytes, blocks, selfChange: new Float64Array(count), change: new Float64Array(count) };
  const isJudged = (group: number) => Number(data.status(group) !== "unknown");
  const change = add((group) => isJudged(group) * (groups.total[group]! - groups.beforeTotal![group]!));
  const [all, judged] = [add(() => 1), add(isJudged)];
  for (const side of ["self", "total"] as const) {
    for (let key = 0; key < count; ++key) if (all[side][key]! > 0 && judged[side][key] === 0) change[side][key] = NaN;
  }
  return { ...bytes, blocks, selfChange: change.self, change: change.total };
}

/** The columns of sums, after that of the name. */
export function sumColumns(data: Data, sums: Sums, who: string): Column[] {
  const { self, total, selfChange, change } = sums;
  const whole = data.totals.listedBytes + data.totals.javaBytes;
  const add = (key: string, title: string, hint: string, values: Float64Array, show: (value: number, row: number) => Node | string): Column => ({
    ...{ key, title, hint, number: true },
    value: (row) => values[row]!,
    cell: (row) => show(values[row]!, row),
  });
  const share = (bytes: number) => formatShare(bytes, whole);
  const since = "since the older report";
  return [
    add("self", "Self", `Bytes allocated by the ${who} itself`, self, formatBytes),
    data.isDiff
      ? add("self-growth", "Self ±", `Change ${since}`, selfChange, changeText)
      : add("self-share", "Self %", "Share of all bytes", self, share),
    add("share", "Share", "Dark: self. Light: total", total, (bytes, row) => shareBar(bytes / whole, self[row]! / whole)),
    add("total", "Total", `Bytes allocated by the ${who} and all that it calls`, total, formatBytes),
    data.isDiff
      ? add("growth", "Total ±", `Change of the total ${since}`, change, changeText)
      : add("total-share", "Total %", "Share of all bytes", total, share),
    add("count", "Blocks", "Number of blocks of the total", sums.blocks(), formatCount),
  ];
}

/** A change in its colour; NaN is not known. */
export function changeText(change: number): HTMLElement {
  if (Number.isNaN(change)) return el("span", { title: "not judged" }, "–");
  const status = change > 0 ? "grew" : change < 0 ? "shrank" : "same";
  return el("span", { "data-status": status }, signed(change, formatBytes));
}

export class FunctionsTab {
  readonly element: HTMLElement;
  private readonly table: Table;
  private readonly panel = el("section", { class: "sandwich", "aria-live": "polite" });
  private picked = -1;

  constructor(
    private readonly data: Data,
    private readonly sums: Sums,
    private readonly pick: (id: number) => void,
    private readonly showStacks: (search: string) => void,
  ) {
    this.table = new Table({
      rows: [...data.functions.keys()].filter((id) => sums.total[id]! > 0 || sums.change[id] !== 0),
      ...{ id: "functions", caption: "Functions by the memory that they hold", sortBy: data.isDiff ? "self-growth" : "self" },
      tie: (id) => sums.total[id]!,
      main: "where",
      columns: [
        {
          ...{ key: "where", title: "Function", hint: "Function and library", number: false },
          value: (id) => data.functions[id]!.name,
          cell: (id) => this.functionCell(id),
        },
        ...sumColumns(data, sums, "function"),
      ],
      picked: (id) => this.pick(id),
      label: (id) => `Callers and callees of ${cutText(data.functions[id]!.short, 80)}`,
    });
    this.panel.hidden = true;
    this.element = el("div", {}, this.panel, this.table.element);
  }

  update(found: Found | null, picked: number): void {
    this.table.show((id) => !found || found.functions[id] === 1);
    this.showPanel(picked);
  }

  /** For paper. Returns what undoes it. */
  startPrinting(): () => void {
    return this.table.startPrinting();
  }

  private functionCell(id: number): HTMLElement {
    const { short, name, library, unresolved } = this.data.functions[id]!;
    const code = el("code", { title: cutText(name, 2000), class: unresolved ? "unresolved" : "" }, cutText(short, kNameLimit));
    const place = unresolved ? "" : this.data.libraryName(library);
    return el("span", { class: "name" }, code, el("small", {}, ` ${place}`));
  }

  private showPanel(id: number): void {
    const known = id >= 0 && id < this.data.cutFunction;
    this.table.setCurrent(known ? id : -1);
    this.panel.hidden = !known;
    if (!known || id === this.picked) {
      this.picked = known ? id : -1;
      return;
    }
    this.picked = id;
    const { name, library } = this.data.functions[id]!;
    const { self, total, blocks } = this.sums;
    this.panel.replaceChildren(
      el(
        "div",
        { class: "sandwich-head" },
        el("h2", { tabindex: -1 }, el("code", {}, cutText(name, 600))),
        el("button", { type: "button", onclick: () => this.showStacks(`=${name}`) }, "Its stacks"),
        el("button", { type: "button", onclick: () => this.close(id) }, "Close"),
      ),
      el(
        "p",
        {},
        `${this.data.libraryName(library) || "no library"}: allocates ${formatBytes(self[id]!)} itself, ` +
          `and ${formatBytes(total[id]!)} in ${plural(blocks()[id]!, "block")} including its callees.`,
      ),
      el("div", { class: "sides" }, this.side("Callers", id, false), this.side("Callees", id, true)),
    );
    this.panel.querySelector("h2")!.focus({ preventScroll: true });
    this.panel.scrollIntoView({ block: "nearest" });
  }

  private close(id: number): void {
    this.pick(-1);
    this.table.focusRow(id);
  }

  private side(title: string, id: number, inward: boolean): HTMLElement {
    const walk = { stacks: this.data.stacks(false), measure: "bytes" as const, inward, from: id };
    const tree = new CallTree(this.data, walk, [...Array(this.data.count).keys()]);
    const here = el("p", { class: "hint" }, inward ? "It allocates all of that itself." : "Nothing calls it.");
    const none = tree.children(tree.root).length === 0;
    return el("div", { class: "side" }, el("h3", {}, title), none ? here : this.list(tree, tree.root));
  }

  /** The children of a node. Each opens to its own. */
  private list(tree: CallTree, parent: TreeNode): HTMLElement {
    const children = [...tree.children(parent)].sort((a, b) => b.held - a.held);
    const list = el("ul", { class: `calls ${children.length === 1 ? "single" : ""}` });
    const add = (from: number) => {
      for (const node of children.slice(from, from + kListed)) list.append(this.call(tree, node));
      const rest = children.length - from - kListed;
      if (rest <= 0) return;
      const more = el("button", { type: "button", class: "more" }, `${formatCount(rest)} more`);
      const line = el("li", {}, more);
      more.addEventListener("click", () => {
        line.remove();
        add(from + kListed);
        list.querySelectorAll<HTMLElement>(".toggle")[from + kListed]?.focus();
      });
      list.append(line);
    };
    add(0);
    return list;
  }

  /** Opens the line of a node. Single children open too, down to the next fork. */
  private open(tree: CallTree, line: HTMLElement, node: TreeNode): void {
    line.querySelector(".toggle")!.setAttribute("aria-expanded", "true");
    line.append(this.list(tree, node));
    const [only, ...more] = tree.children(node);
    if (more.length > 0 || tree.children(only!).length === 0) return;
    this.open(tree, line.querySelector<HTMLElement>(":scope > ul > li")!, only!);
  }

  private call(tree: CallTree, node: TreeNode): HTMLElement {
    const { short, name, unresolved } = this.data.functions[node.id]!;
    const whole = tree.root.held;
    const line = el("li");
    const toggle = el("button", {
      ...{ type: "button", class: "toggle", "aria-expanded": "false" },
      "aria-label": `Next level of ${cutText(short, 80)}`,
    });
    const isCut = node.id === this.data.cutFunction;
    const link = isCut
      ? el("span", {}, short)
      : el(
          "button",
          { type: "button", class: `link ${unresolved ? "unresolved" : ""}`, title: cutText(name, 2000), onclick: () => this.pick(node.id) },
          cutText(short, kNameLimit),
        );
    toggle.addEventListener("click", () => {
      if (toggle.getAttribute("aria-expanded") !== "true") return this.open(tree, line, node);
      toggle.setAttribute("aria-expanded", "false");
      line.querySelector("ul")!.remove();
    });
    const leaf = tree.children(node).length === 0;
    if (leaf) toggle.classList.add("leaf");
    toggle.disabled = leaf;
    const figures = el("span", { class: "figures" }, el("span", {}, formatBytes(node.held)), " ", el("span", {}, formatShare(node.held, whole)));
    if (this.data.isDiff) {
      const judged = node.notJudged < node.end - node.begin;
      figures.append(" ", changeText(judged ? node.after - node.before : NaN));
    }
    line.append(el("div", { class: "call" }, toggle, shareBar(whole > 0 ? node.held / whole : 0), figures, link));
    return line;
  }
}
