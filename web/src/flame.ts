// SPDX-License-Identifier: Apache-2.0
// A flame graph on a canvas: layout, zoom, search and keyboard. A canvas draws thousands of boxes in
// a few milliseconds, and needs no elements for them.

import { changeColour, type ColourBy, type LibraryColours, palette } from "./colours.js";
import type { Data } from "./data.js";
import { el, formatBytes, formatCount, formatShare, plural, signed } from "./dom.js";
import { cutText } from "./names.js";
import type { Found } from "./search.js";
import { type Box, type CallTree, kRest, kRoot, layOut, type TreeNode } from "./tree.js";

const kLevel = 20; // pixels
const kLeast = 1.5; // narrower boxes are gathered
const kLeastLabel = 28;
const kMaxPixels = 32000; // of a canvas, in all browsers
const kPrintWidth = 1040;

export class FlameGraph {
  readonly element: HTMLElement;
  private readonly canvas = el("canvas");
  private readonly scroller = el(
    "div",
    {
      ...{ class: "flame", tabindex: 0, role: "application" },
      "aria-label": "Flame graph. Arrow keys move between frames, Enter zooms in, Escape zooms out.",
    },
    this.canvas,
  );
  private readonly details = el("p", { class: "flame-details", "aria-live": "polite" });
  private boxes: Box[] = [];
  private current: Box | null = null;
  private found: Found | null = null;
  private focus: TreeNode;
  private printing = false;
  private drawn = 0; // width

  constructor(
    private readonly data: Data,
    private readonly colours: LibraryColours,
    private readonly colourBy: ColourBy,
    private tree: CallTree,
    private readonly zoomed: (node: TreeNode) => void,
  ) {
    this.focus = tree.root;
    this.element = el("div", { class: "flame-view" }, this.details, this.scroller);
    this.canvas.addEventListener("click", (event) => {
      const box = this.boxAt(event);
      if (box) this.zoom(box.node);
    });
    this.canvas.addEventListener("mousemove", (event) => {
      const box = this.boxAt(event);
      this.canvas.style.cursor = box ? "pointer" : "";
      this.mark(box, false);
    });
    this.canvas.addEventListener("mouseleave", () => this.mark(null, false));
    this.scroller.addEventListener("keydown", (event) => this.pressed(event));
    this.scroller.addEventListener("blur", () => this.mark(null, false));
    new ResizeObserver(() => {
      if (this.scroller.clientWidth !== this.drawn) this.draw();
    }).observe(this.scroller);
  }

  /** The zoomed node. */
  get focused(): TreeNode {
    return this.focus;
  }

  /** Shows a tree, zoomed to one of its nodes, with the boxes of the found functions marked. */
  show(tree: CallTree, focus: TreeNode, found: Found | null): void {
    if (tree === this.tree && focus === this.focus && found === this.found && this.drawn > 0) return;
    this.tree = tree;
    this.focus = focus;
    this.found = found;
    this.draw();
  }

  /** Draws for paper, whose width the element does not have yet. */
  setPrinting(on: boolean): void {
    this.printing = on;
    this.draw();
  }

  draw(): void {
    const width = this.printing ? kPrintWidth : this.scroller.clientWidth;
    this.drawn = width; // 0 while hidden: it is drawn when it is shown again
    if (width === 0) return;
    this.current = null;
    this.boxes = layOut(this.tree, this.focus, width, kLeast);
    this.paint();
    this.describe(this.focus);
  }

  private paint(): void {
    const levels = 1 + this.boxes.reduce((most, { level }) => Math.max(most, level), 0);
    const height = levels * kLevel;
    const ratio = Math.min(Math.max(window.devicePixelRatio, this.printing ? 2 : 1), kMaxPixels / height);
    this.canvas.width = Math.round(this.drawn * ratio);
    this.canvas.height = Math.round(height * ratio);
    this.canvas.style.height = this.printing ? "auto" : `${height}px`;
    const context = this.canvas.getContext("2d")!;
    context.scale(ratio, ratio);
    context.font = "12px system-ui, sans-serif";
    context.textBaseline = "middle";
    const colours = palette();
    for (const box of this.boxes) {
      const { node, x, width } = box;
      const y = box.level * kLevel;
      context.globalAlpha = isAncestor(node, this.focus) ? 0.6 : 1;
      context.fillStyle = this.colour(node);
      context.fillRect(x, y, Math.max(width - 0.6, 0.5), kLevel - 1);
      if (width < kLeastLabel) continue;
      context.globalAlpha = 1;
      context.fillStyle = colours.text;
      context.fillText(fit(context, this.name(node), width - 8), x + 4, y + kLevel / 2, width - 6);
    }
    context.globalAlpha = 1;
    if (this.current) {
      const { x, width, level } = this.current;
      context.strokeStyle = colours.mark;
      context.lineWidth = 2;
      context.strokeRect(x + 1, level * kLevel + 1, Math.max(width - 2, 1), kLevel - 3);
    }
  }

  private colour(node: TreeNode): string {
    const colours = palette();
    if (this.found) {
      if (node.id >= 0 && this.found.functions[node.id] === 1) return colours.match;
      const { groups } = this.found;
      const near = node.id === kRest && this.tree.groupsOf(node).some((group) => groups[group] === 1);
      return near ? colours.nearMatch : colours.plain;
    }
    if (node.id < 0) return colours.plain;
    return this.colourBy === "change" ? changeColour(node) : this.colours.ofFunction(node.id);
  }

  private name(node: TreeNode): string {
    if (node.id === kRest) return `${formatCount(node.children!.length)} smaller`;
    return node.id === kRoot ? "all" : this.data.functions[node.id]!.short;
  }

  private describe(node: TreeNode): void {
    const { measure } = this.tree.walk;
    const format = measure === "bytes" ? formatBytes : blocks;
    const info = this.data.functions[node.id];
    const library = info ? this.data.libraryName(info.library) : "";
    const share = formatShare(node.width, this.tree.root.width);
    const parts = [format(node.after), share];
    if (this.data.isDiff) {
      parts[0] = `${format(node.before)} → ${format(node.after)} (${signed(node.after - node.before, format)})`;
      if (node.notJudged === node.end - node.begin) parts.shift();
      if (node.notJudged > 0) parts.push(`${plural(node.notJudged, "stack")} not judged`);
    }
    const name = info?.name ?? this.name(node);
    this.details.replaceChildren(
      el("strong", {}, parts.join(", ")),
      " ",
      el("code", {}, cutText(name, 400)),
      library === "" ? "" : ` in ${library}`,
    );
    this.details.title = cutText(name, 2000);
  }

  private boxAt(event: MouseEvent): Box | null {
    const frame = this.canvas.getBoundingClientRect();
    const x = ((event.clientX - frame.left) * this.drawn) / frame.width;
    const level = Math.floor((event.clientY - frame.top) / kLevel);
    return this.boxes.find((box) => box.level === level && x >= box.x && x < box.x + box.width) ?? null;
  }

  /** Zooms as a click does. */
  zoom(node: TreeNode): void {
    this.show(this.tree, node, this.found);
    this.zoomed(node);
  }

  private pressed(event: KeyboardEvent): void {
    const { boxes } = this;
    const current = this.current ?? boxes.find(({ node }) => node === this.focus)!;
    const level = (by: number) => boxes.filter((box) => box.level === current.level + by);
    const inside = (box: Box) => box.x >= current.x - 0.01 && box.x < current.x + current.width;
    const beside = (by: number) => {
      const row = level(0).sort((a, b) => a.x - b.x);
      return row[row.indexOf(current) + by];
    };
    const moves: Record<string, () => Box | undefined> = {
      ArrowDown: () => level(1).filter(inside).sort((a, b) => a.x - b.x)[0],
      ArrowUp: () => level(-1).find((box) => box.x <= current.x + 0.01 && current.x < box.x + box.width),
      ArrowLeft: () => beside(-1),
      ArrowRight: () => beside(1),
      Home: () => boxes[0],
    };
    if (event.key === "Enter") {
      this.zoom(current.node);
    } else if (event.key === "Escape") {
      this.zoom(this.focus.parent ?? this.focus);
    } else if (event.key in moves) {
      this.mark(moves[event.key]!() ?? current, true);
    } else {
      return;
    }
    event.preventDefault();
    event.stopPropagation();
  }

  /** Outlines a box, and describes it, or the focus for null. */
  private mark(box: Box | null, scroll: boolean): void {
    if (box === this.current) return;
    this.current = box;
    this.paint();
    this.describe(box?.node ?? this.focus);
    if (!box || !scroll) return;
    const top = box.level * kLevel;
    const { scrollTop, clientHeight } = this.scroller;
    if (top < scrollTop) this.scroller.scrollTop = top;
    if (top + kLevel > scrollTop + clientHeight) this.scroller.scrollTop = top + kLevel - clientHeight;
  }
}

function blocks(count: number): string {
  return plural(count, "block");
}

function isAncestor(node: TreeNode, focus: TreeNode): boolean {
  for (let at = focus.parent; at; at = at.parent) if (at === node) return true;
  return false;
}

/** `text`, cut at its end to fit into `width` pixels. */
function fit(context: CanvasRenderingContext2D, text: string, width: number): string {
  const whole = cutText(text, 300);
  const needed = context.measureText(whole).width;
  if (needed <= width) return whole;
  const length = Math.floor((whole.length * width) / needed) - 1;
  return length < 1 ? "" : whole.slice(0, length) + "…";
}

/** The path of a node as text: the functions from the root, "3.17.4". */
export function pathOf(node: TreeNode): string {
  const ids: number[] = [];
  for (let at: TreeNode | null = node; at && at.id !== kRoot; at = at.parent) {
    if (at.id >= 0) ids.unshift(at.id);
  }
  return ids.join(".");
}

/** The node at a path; the last existing one if the path is not in the tree. */
export function nodeAt(tree: CallTree, path: string): TreeNode {
  let node = tree.root;
  for (const id of path === "" ? [] : path.split(".").map(Number)) {
    const next: TreeNode | undefined = tree.children(node).find((child) => child.id === id);
    if (!next) break;
    node = next;
  }
  return node;
}
