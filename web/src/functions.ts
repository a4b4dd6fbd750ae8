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
  blocks: Float64Array; // of these
  selfChange: Float64Array; // in bytes, of the groups that are judged; NaN if none is
  change: Float64Array;
}

/** Sums of `count` keys. `keyOf` gives that of a function. */
export function sumsBy(data: Data, count: number, keyOf: (id: number) => number): Sums {
  const { groups, parentOf, nodeFunction, isDiff } = data;
  const make = () => new Float64Array(count);
  const sums = { self: make(), total: make(), blocks: make(), selfChange: make(), change: make() };
  const keys = Uint32Array.from(data.functions, (_, id) => keyOf(id));
  // By node: the sums of the groups that end there, then also of those below it.
  const nodes = parentOf.length;
  const [bytes, blocks, change] = [new Float64Array(nodes), new Float64Array(nodes), new Float64Array(isDiff ? nodes : 0)];
  const doubt = new Uint8Array(change.length); // 1: not judged, 2: judged, 3: both
  const selfDoubt = new Uint8Array(count);
  for (let group = 0; group < data.count; ++group) {
    const node = groups.node[group]!;
    if (node === 0) continue;
    const key = keys[nodeFunction[node]!]!;
    bytes[node]! += groups.total[group]!;
    blocks[node]! += groups.count[group]!;
    sums.self[key]! += groups.total[group]!;
    if (!isDiff) continue;
    const judged = data.status(group) !== "unknown";
    const changed = judged ? groups.total[group]! - groups.beforeTotal![group]! : 0;
    change[node]! += changed;
    sums.selfChange[key]! += changed;
    doubt[node]! |= judged ? 2 : 1;
    selfDoubt[key]! |= judged ? 2 : 1;
  }
  for (let node = nodes - 1; node > 0; --node) {
    const parent = parentOf[node]!;
    bytes[parent]! += bytes[node]!;
    blocks[parent]! += blocks[node]!;
    if (!isDiff) continue;
    change[parent]! += change[node]!;
    doubt[parent]! |= doubt[node]!;
  }
  const totalDoubt = new Uint8Array(count);
  const onPath = new Uint16Array(count); // how often each key is on the path to the node
  for (let node = 1; node < nodes; ++node) {
    for (let last = node - 1; last !== parentOf[node]; last = parentOf[last]!) --onPath[keys[nodeFunction[last]!]!]!;
    const key = keys[nodeFunction[node]!]!;
    if (onPath[key]!++ > 0) continue; // a recursive function counts once
    sums.total[key]! += bytes[node]!;
    sums.blocks[key]! += blocks[node]!;
    if (!isDiff) continue;
    sums.change[key]! += change[node]!;
    totalDoubt[key]! |= doubt[node]!;
  }
  for (let key = 0; key < count; ++key) {
    if (selfDoubt[key] === 1) sums.selfChange[key] = NaN;
    if (totalDoubt[key] === 1) sums.change[key] = NaN;
  }
  return sums;
}

/** The columns of sums, after that of the name. */
export function sumColumns(data: Data, sums: Sums, who: string): Column[] {
  const { self, total, blocks, selfChange, change } = sums;
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
    add("count", "Blocks", "Number of blocks of the total", blocks, formatCount),
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
          `and ${formatBytes(total[id]!)} in ${plural(blocks[id]!, "block")} including its callees.`,
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
    const list = el("ul", { class: "calls" });
    const children = [...tree.children(parent)].sort((a, b) => b.held - a.held);
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
      const open = toggle.getAttribute("aria-expanded") === "true";
      toggle.setAttribute("aria-expanded", String(!open));
      if (open) {
        line.querySelector("ul")?.remove();
        return;
      }
      line.append(this.list(tree, node));
      // A single one opens at once, down to the next fork.
      const inner = line.querySelectorAll<HTMLElement>(":scope > ul > li > .call > .toggle");
      if (inner.length === 1) inner[0]!.click();
    });
    const leaf = tree.children(node).length === 0;
    if (leaf) toggle.classList.add("leaf");
    toggle.disabled = leaf;
    const figures = el("span", { class: "figures" }, formatBytes(node.held), " ", el("span", {}, formatShare(node.held, whole)));
    if (this.data.isDiff) {
      const judged = node.notJudged < node.end - node.begin;
      figures.append(" ", changeText(judged ? node.after - node.before : NaN));
    }
    line.append(el("div", { class: "call" }, toggle, shareBar(whole > 0 ? node.held / whole : 0), figures, link));
    return line;
  }
}
