// SPDX-License-Identifier: Apache-2.0
// The tab of the flame graph: the graph, its controls and its legend.

import { type ColourBy, kChangeKey, changeShade, type LibraryColours } from "./colours.js";
import type { Data } from "./data.js";
import { choice, el, formatBytes, longText } from "./dom.js";
import { FlameGraph, nodeAt, pathOf } from "./flame.js";
import type { Found } from "./search.js";
import type { State } from "./state.js";
import { CallTree } from "./tree.js";

const kLibraries = 12;

export class FlameTab {
  readonly element: HTMLElement;
  readonly graph: FlameGraph;
  private readonly legend = el("ul", { class: "legend" });
  private tree: CallTree;
  private shown = "callers bytes false"; // how the tree was grown
  private readonly reset = el("button", { type: "button", class: "reset" }, "Reset zoom");
  private readonly controls: { [key in "from" | "by"]: HTMLElement };
  private readonly named = el("input", { type: "checkbox" });

  constructor(
    private readonly data: Data,
    private readonly colours: LibraryColours,
    private readonly colourBy: ColourBy,
    set: (change: Partial<State>) => void,
  ) {
    this.tree = this.grow({ from: "callers", by: "bytes", named: false });
    this.graph = new FlameGraph(data, colours, colourBy, this.tree, (node) => set({ zoom: pathOf(node) }));
    this.reset.addEventListener("click", () => this.graph.zoom(this.tree.root));
    this.named.addEventListener("change", () => set({ named: this.named.checked, zoom: "" }));
    this.controls = {
      from: choice<State["from"]>("Start at", [["callers", "the outermost callers"], ["allocation", "the allocation"]], (from) => set({ from, zoom: "" })),
      by: choice<State["by"]>("Width by", [["bytes", "bytes"], ["count", "number of blocks"]], (by) => set({ by, zoom: "" })),
    };
    this.element = el(
      "div",
      {},
      el(
        "div",
        { class: "controls" },
        this.controls.from,
        this.controls.by,
        el("label", {}, this.named, " hide unresolved frames"),
        this.reset,
      ),
      // The legend of changes is short, so it is above the graph.
      ...(colourBy === "change" ? [this.legend, this.graph.element] : [this.graph.element, this.legend]),
    );
    this.drawLegend();
  }

  update(state: State, found: Found | null): void {
    const { from, by, named } = state;
    for (const key of ["from", "by"] as const) this.controls[key].querySelector("select")!.value = state[key];
    this.named.checked = named;
    const wanted = `${from} ${by} ${named}`;
    const grown = wanted !== this.shown;
    if (grown) {
      this.shown = wanted;
      this.tree = this.grow(state);
    }
    // Gathered nodes have the path of their parent: keep the zoom to one.
    const { focused } = this.graph;
    const node = !grown && pathOf(focused) === state.zoom ? focused : nodeAt(this.tree, state.zoom);
    this.reset.disabled = node === this.tree.root;
    this.graph.show(this.tree, node, found);
  }

  /** After a change of the colour scheme. */
  recolour(): void {
    this.drawLegend();
    this.graph.draw();
  }

  private grow({ from, by, named }: Pick<State, "from" | "by" | "named">): CallTree {
    const walk = { stacks: this.data.stacks(named), measure: by, inward: from === "callers", from: -1 };
    return new CallTree(this.data, walk, [...Array(this.data.count).keys()]);
  }

  private drawLegend(): void {
    const entry = (colour: string, ...texts: (HTMLElement | string)[]) => {
      const swatch = el("span", { class: "swatch", "aria-hidden": "true" });
      swatch.style.background = colour;
      return el("li", {}, swatch, ...texts);
    };
    if (this.colourBy === "change") {
      this.legend.setAttribute("aria-label", "Colours of changes");
      this.legend.replaceChildren(
        ...kChangeKey.map(([share, text]) => entry(changeShade(share), text)),
        el("li", {}, el("small", {}, "A box is as wide as the larger of before and now.")),
      );
      return;
    }
    this.legend.setAttribute("aria-label", "Colours of libraries");
    const ranking = this.colours.ranking.filter(({ bytes }) => bytes > 0);
    const others = ranking.length - kLibraries;
    this.legend.replaceChildren(
      ...ranking.slice(0, kLibraries).map(({ library, bytes }) =>
        entry(
          this.colours.of(library),
          longText(this.data.libraryName(library), 60),
          el("small", {}, ` on stacks that hold ${formatBytes(bytes)}`),
        ),
      ),
      ...(others > 0 ? [el("li", {}, el("small", {}, `and ${others} more`))] : []),
    );
  }
}
