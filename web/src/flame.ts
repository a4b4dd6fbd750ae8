// SPDX-License-Identifier: Apache-2.0
// The flame graph: zoom, search and keyboard. The library lays out and draws the boxes. It gets only
// the visible ones, at every zoom.

import flamegraph, { type LayoutNode } from "d3-flame-graph";
import { select, selection } from "d3-selection";
import { changeColour, type ColourBy, kMatchColour, kNearMatchColour, kPlainColour, LibraryColours } from "./colours.js";
import { cutText, el, formatBytes, formatShare, longText, plural, signed } from "./dom.js";
import type { Measure, Profile } from "./profile.js";
import { CallTree, cut, type Drawn, type TreeNode } from "./tree.js";

// Each box costs four elements. With more boxes, single ones cannot be distinguished.
const kMaxBoxes = 700;
const kMinPixels = 2;
const kCellHeight = 19;
const kTitleHeight = 2 * kCellHeight; // reserved by the library
const kNameLimit = 200;

// The library draws by transitions, which take several frames even with a duration of 0. With the
// selection itself in place of a transition, changes take effect at once.
function same(this: unknown): unknown {
  return this;
}
Object.assign(selection.prototype, { transition: same, delay: same, duration: same, ease: same });

export class FlameView {
  readonly element: HTMLElement;
  private measure: Measure = "bytes";
  private readonly canvas = el("div", {
    id: "flame",
    tabindex: 0,
    role: "application",
    "aria-label":
      "Flame graph. Arrow keys move between frames, Enter zooms in, Escape zooms out.",
    "aria-describedby": "flame-details",
  });
  private readonly details = el("div", { id: "flame-details", "aria-live": "polite" });
  private readonly chart = flamegraph<Drawn>();
  private tree: CallTree;
  private focus: TreeNode;
  private current: LayoutNode<Drawn> | null = null;
  private matches: Set<number> | null = null;
  private matched = new Set<number>();
  private drawn = false;
  private fromAllocation = false;
  private rootOnTop = true;
  colourBy: ColourBy;

  constructor(
    private readonly profile: Profile,
    private readonly colours: LibraryColours,
    private groups: number[],
    private readonly zoomed: (node: TreeNode | null) => void,
  ) {
    this.colourBy = profile.isDiff ? "change" : "library";
    this.tree = this.grow();
    this.focus = this.tree.root;
    this.element = el("div", { class: "flame-view" }, this.canvas, this.details);
    this.chart
      .cellHeight(kCellHeight)
      .resetHeightOnZoom(true)
      .setColorMapper((node) => this.colour(node.data.node))
      .setLabelHandler((node) => this.label(node.data.node))
      .onHover((node) => this.describe(node.data.node));
    // Before the library's own zoom, which knows only the drawn boxes.
    this.canvas.addEventListener("click", (event) => this.clicked(event), true);
    this.canvas.addEventListener("keydown", (event) => this.pressed(event));
    this.canvas.addEventListener("mouseleave", () => this.describe(this.focus));
    this.canvas.addEventListener("blur", () => this.mark(null));
    new ResizeObserver(() => this.draw()).observe(this.canvas);
  }

  /** Shows these groups, from the top. */
  setGroups(groups: number[]): void {
    this.groups = groups;
    this.rebuild();
  }

  setMeasure(measure: Measure): void {
    this.measure = measure;
    this.rebuild();
  }

  setDirection(fromAllocation: boolean): void {
    this.fromAllocation = fromAllocation;
    this.rebuild();
  }

  setColourBy(colourBy: ColourBy): void {
    this.colourBy = colourBy;
    this.draw();
  }

  flip(rootOnTop: boolean): void {
    this.rootOnTop = rootOnTop;
    this.canvas.classList.toggle("flipped", !rootOnTop);
    this.draw();
    if (!rootOnTop) this.canvas.scrollTop = this.canvas.scrollHeight;
  }

  /** Marks frames, or none for null. `groups` are the groups with one of them on their stacks. */
  highlight(frames: Set<number> | null, groups: Iterable<number>): void {
    this.matches = frames;
    this.matched = new Set(groups);
    this.draw();
  }

  zoom(node: TreeNode): void {
    this.focus = node;
    this.draw();
    this.describe(node);
    this.zoomed(node === this.tree.root ? null : node);
  }

  reset(): void {
    this.zoom(this.tree.root);
  }

  private grow(): CallTree {
    const options = { measure: this.measure, fromAllocation: this.fromAllocation };
    return new CallTree(this.profile, options, this.groups);
  }

  private rebuild(): void {
    this.tree = this.grow();
    this.reset();
  }

  private draw(): void {
    const width = this.canvas.clientWidth;
    if (width === 0) return;
    this.current = null;
    const data = cut(this.tree, this.focus, kMaxBoxes, kMinPixels / width);
    this.chart.width(width).inverted(this.rootOnTop);
    if (this.drawn) {
      this.chart.update(data);
    } else {
      this.drawn = true;
      select(this.canvas).datum(data).call(this.chart);
      this.describe(this.focus);
    }
    this.crop(width);
  }

  /** Cuts off the space for a title, opposite the root. The view box lets printing scale the rest. */
  private crop(width: number): void {
    const svg = this.canvas.querySelector("svg")!;
    const height = Number(svg.getAttribute("height")) - kTitleHeight;
    svg.setAttribute("height", String(height));
    svg.setAttribute("viewBox", `0 ${this.rootOnTop ? 0 : kTitleHeight} ${width} ${height}`);
  }

  private colour(node: TreeNode): string {
    if (this.matches) {
      const frames = this.profile.functionOf;
      if (node.frame >= 0 && this.matches.has(frames[node.frame]!)) return kMatchColour;
      const gathered = node.frame < 0 && node.parent !== null;
      const within = gathered && node.groups.some((group) => this.matched.has(group));
      return within ? kNearMatchColour : kPlainColour;
    }
    if (this.colourBy === "change") return changeColour(node);
    return this.colours.of(this.profile.doc.frames[node.frame]?.library ?? -1);
  }

  private figures(node: TreeNode): string {
    const format = this.measure === "bytes" ? formatBytes : blocks;
    const share = `${formatShare(node.width, this.tree.root.width)} of what is drawn`;
    if (!this.profile.isDiff) return `${format(node.after)}, ${share}`;
    const change = signed(node.after - node.before, format);
    const judged = `${format(node.before)} → ${format(node.after)} (${change})`;
    if (node.notJudged === 0) return `${judged}, ${share}`;
    const rest = `${plural(node.notJudged, "group")} not judged`;
    return node.notJudged === node.groups.length ? `${rest}, ${share}` : `${judged}, ${rest}, ${share}`;
  }

  private label(node: TreeNode): string {
    return `${cutText(node.name, kNameLimit)}\n${this.figures(node)}`;
  }

  private describe(node: TreeNode): void {
    const frame = this.profile.doc.frames[node.frame];
    const library = frame ? this.profile.libraryName(frame) : "";
    this.details.replaceChildren(
      longText(node.name, kNameLimit),
      library === "" ? "" : ` in ${library}`,
      ` — ${this.figures(node)}`,
    );
  }

  private boxes(): SVGGElement[] {
    return [...this.canvas.querySelectorAll<SVGGElement>("g.frame")];
  }

  private clicked(event: Event): void {
    const box = (event.target as Element).closest("g.frame");
    if (!box) return;
    event.stopPropagation();
    this.zoom(layout(box).data.node);
  }

  private pressed(event: KeyboardEvent): void {
    const start = this.boxes().map(layout).find((node) => node.data.node === this.focus);
    const current = this.current ?? start;
    if (!current) return;
    const moves: Record<string, () => LayoutNode<Drawn> | null | undefined> = {
      [this.rootOnTop ? "ArrowDown" : "ArrowUp"]: () => current.children?.[0],
      [this.rootOnTop ? "ArrowUp" : "ArrowDown"]: () => current.parent,
      ArrowLeft: () => sibling(current, -1),
      ArrowRight: () => sibling(current, 1),
      Home: () => start,
    };
    if (event.key === "Enter") {
      this.zoom(current.data.node);
    } else if (event.key === "Escape") {
      this.zoom(this.focus.parent ?? this.focus);
    } else if (event.key in moves) {
      this.mark(moves[event.key]!() ?? current);
    } else {
      return;
    }
    event.preventDefault();
  }

  /** Outlines the current box of the keyboard. */
  private mark(node: LayoutNode<Drawn> | null): void {
    this.current = node;
    for (const box of this.boxes()) {
      const here = node !== null && layout(box) === node;
      box.classList.toggle("current", here);
      if (here) box.scrollIntoView({ block: "nearest" });
    }
    if (node) this.describe(node.data.node);
  }
}

function blocks(count: number): string {
  return plural(count, "block");
}

function layout(box: Element): LayoutNode<Drawn> {
  return (box as unknown as { __data__: LayoutNode<Drawn> }).__data__;
}

function sibling(node: LayoutNode<Drawn>, step: number): LayoutNode<Drawn> | undefined {
  const all = node.parent?.children ?? [];
  return all[all.indexOf(node) + step];
}
