// SPDX-License-Identifier: Apache-2.0
// Starts the page: reads its data, and shows the tab, search and zoom of the URL.

import "./style.css";
import "./views.css";
import "./media.css";
import { LibraryColours, onSchemeChange, setPrinting } from "./colours.js";
import { type Data, readData } from "./data.js";
import { choice, el, formatBytes, formatCount, formatShare, plural, settled } from "./dom.js";
import { FlameTab } from "./flame_tab.js";
import { FunctionsTab, type Sums, sumsBy } from "./functions.js";
import { growthView } from "./growth.js";
import { LibrariesTab, librarySums } from "./libraries.js";
import { type Found, isPattern, search } from "./search.js";
import { StacksTab } from "./stacks.js";
import { kTabs, readState, type State, type Tab, writeState } from "./state.js";
import { summary } from "./summary.js";

const kTypingPause = 120; // milliseconds

const kTitles: Record<Tab, string> = {
  functions: "Functions",
  flame: "Flame graph",
  stacks: "Stacks",
  libraries: "Libraries",
  growth: "Growth",
};

type Kind = "all" | "native" | "java";

class Page {
  private state = readState();
  private found: Found | null = null;
  private confirmed = ""; // the pattern that was searched with Enter
  // Made when they are first needed.
  private madeColours: LibraryColours | null = null;
  private madeSums: Sums | null = null;
  private madeLibrarySums: Sums | null = null;
  private readonly panels = new Map<Tab, HTMLElement>();
  private readonly tabs = new Map<Tab, HTMLElement>();
  /** The parts of each tab. They are made when the tab is first shown. */
  private readonly views = new Map<Tab, () => void>();
  private readonly graphs: FlameTab[] = [];
  private functions: FunctionsTab | null = null;
  private libraries: LibrariesTab | null = null;
  private printed = () => {}; // undoes what printing changed
  private readonly result = el("output", { id: "found" });
  private readonly input = el("input", {
    ...{ type: "search", id: "search", placeholder: "function, library, file, =exact name or /pattern/" },
    ...{ "aria-keyshortcuts": "/", title: "Press / to search, Escape to clear", "aria-label": "Search" },
    oninput: settled(kTypingPause, () => this.searched()),
    onchange: () => this.searched(),
    onkeydown: (event) => {
      if ((event as KeyboardEvent).key !== "Enter") return;
      this.confirmed = this.input.value.trim();
      this.set({ q: this.confirmed }, false);
    },
  });

  constructor(private readonly data: Data) {
    document.body.replaceChildren(summary(data), this.bar(), this.main());
    document.addEventListener("keydown", (event) => this.pressed(event));
    for (const event of ["hashchange", "popstate"]) {
      window.addEventListener(event, () => {
        this.state = readState();
        this.update(true);
      });
    }
    onSchemeChange(() => this.recolour());
    window.addEventListener("beforeprint", () => this.print(true));
    window.addEventListener("afterprint", () => this.print(false));
    this.update();
  }

  private get sums(): Sums {
    return (this.madeSums ??= sumsBy(this.data, this.data.functions.length, (id) => id));
  }

  private get librarySums(): Sums {
    return (this.madeLibrarySums ??= librarySums(this.data));
  }

  private get colours(): LibraryColours {
    return (this.madeColours ??= new LibraryColours(this.data, this.librarySums));
  }

  private bar(): HTMLElement {
    const list = el("div", { class: "tabs", role: "tablist", "aria-label": "Views" });
    for (const tab of kTabs) {
      const button = el(
        "button",
        {
          ...{ type: "button", role: "tab", id: `tab-${tab}`, "aria-controls": `panel-${tab}` },
          onclick: () => this.set({ tab }, true),
          onkeydown: (event) => this.moveTab(event as KeyboardEvent, tab),
        },
        kTitles[tab],
      );
      this.tabs.set(tab, button);
      list.append(button);
    }
    const bar = el("nav", { class: "bar", "aria-label": "Views and search" }, list, el("div", { class: "search" }, this.input, this.result));
    // Heads of tables stick below it.
    const { style } = document.documentElement;
    new ResizeObserver(() => style.setProperty("--bar-height", `${bar.offsetHeight}px`)).observe(bar);
    return bar;
  }

  private main(): HTMLElement {
    const main = el("main");
    for (const tab of kTabs) {
      const panel = el("section", { ...{ id: `panel-${tab}`, role: "tabpanel", "aria-labelledby": `tab-${tab}` } });
      this.panels.set(tab, panel);
      main.append(panel);
    }
    return main;
  }

  private set(change: Partial<State>, push = true): void {
    this.state = { ...this.state, ...change };
    writeState(this.state, push);
    this.update();
  }

  private searched(): void {
    const q = this.input.value.trim();
    // A click on a row blurs the input first, and a new row would lose the click.
    if (q !== this.state.q) this.set({ q }, false);
  }

  private pick(f: number): void {
    this.set({ f, tab: "functions" });
  }

  /** `reread`: the state comes from the URL, not from the controls. */
  private update(reread = false): void {
    const { tab, q } = this.state;
    if (reread || document.activeElement !== this.input) this.input.value = q;
    const typed = this.waits() ? "" : q;
    if (typed !== (this.found?.typed ?? "")) this.found = search(this.data, typed);
    this.result.textContent = this.resultText();
    for (const name of kTabs) {
      const chosen = name === tab;
      this.panels.get(name)!.hidden = !chosen;
      this.tabs.get(name)!.setAttribute("aria-selected", String(chosen));
      this.tabs.get(name)!.tabIndex = chosen ? 0 : -1;
    }
    this.show(tab);
  }

  /** A pattern can hang the page. So it waits for Enter, also if a link contains it. */
  private waits(): boolean {
    return isPattern(this.state.q) && this.state.q !== this.confirmed;
  }

  private show(tab: Tab): void {
    let view = this.views.get(tab);
    if (!view) this.views.set(tab, (view = this.make(tab, this.panels.get(tab)!)));
    view();
  }

  /** Makes a tab. Returns what brings it up to date. */
  private make(tab: Tab, panel: HTMLElement): () => void {
    const { data } = this;
    const pick = (f: number) => this.pick(f);
    if (tab === "functions") {
      const view = (this.functions = new FunctionsTab(data, this.sums, pick, (q) => this.set({ q, tab: "stacks" })));
      panel.append(view.element);
      return () => view.update(this.found, this.state.f);
    }
    if (tab === "flame") return this.makeFlame(panel, "library");
    if (tab === "libraries") {
      const view = (this.libraries = new LibrariesTab(data, this.librarySums, () => this.sums, this.colours, pick));
      panel.append(view.element);
      return () => view.update(this.found);
    }
    if (tab === "stacks") return this.makeStacks(panel, "stacks");
    const growth = el("div");
    let shown: Found | null | undefined;
    panel.append(growth);
    const update = () => {
      if (this.found !== shown) growth.replaceChildren(growthView(data, this.found));
      shown = this.found;
    };
    if (!data.isDiff) return update;
    const flame = this.makeFlame(panel, "change");
    const stacks = this.makeStacks(panel, "changes");
    return () => {
      update();
      flame();
      stacks();
    };
  }

  private makeFlame(panel: HTMLElement, colourBy: "library" | "change"): () => void {
    const view = new FlameTab(this.data, this.colours, colourBy, (change) => this.set(change));
    this.graphs.push(view);
    panel.append(view.element);
    return () => view.update(this.state, this.found);
  }

  private makeStacks(panel: HTMLElement, id: "stacks" | "changes"): () => void {
    const { data } = this;
    const view = new StacksTab(data, id, (f) => this.pick(f));
    const named = el("input", { type: "checkbox", onchange: () => this.set({ named: named.checked, zoom: "" }) });
    let kind: Kind = "all";
    const controls = el("div", { class: "controls" });
    const update = () => {
      named.checked = this.state.named;
      const { found } = this;
      const ofKind = (group: number) => kind === "all" || data.isJava(group) === (kind === "java");
      view.update((group) => ofKind(group) && (!found || found.groups[group] === 1), this.state.named);
    };
    if (data.totals.javaGroups > 0) {
      const kinds: [Kind, string][] = [["all", "native and Java-native"], ["native", "native"], ["java", "Java-native"]];
      controls.append(choice("Stacks", kinds, (chosen) => ((kind = chosen), update())));
    }
    // The graph above has this choice already.
    if (id === "stacks") controls.append(el("label", {}, named, " hide unresolved frames"));
    panel.append(controls, view.element);
    return update;
  }

  private resultText(): string {
    if (this.waits()) return "Press Enter to search";
    if (!this.found) return "";
    if (this.found.problem !== "") return `Not a valid pattern: ${this.found.problem}`;
    const { functionCount, groupCount, bytes } = this.found;
    const whole = this.data.totals.listedBytes + this.data.totals.javaBytes;
    return (
      `${formatCount(functionCount)} found, on ${plural(groupCount, "stack")} ` +
      `that hold${groupCount === 1 ? "s" : ""} ${formatBytes(bytes)} (${formatShare(bytes, whole)})`
    );
  }

  /** "/" focuses the search, except in an input. Escape clears it. */
  private pressed(event: KeyboardEvent): void {
    const { key, target } = event;
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    if (key === "Escape" && target === this.input) {
      event.preventDefault();
      this.input.value = "";
      this.set({ q: "" }, false);
    } else if (key === "/" && !(target instanceof HTMLElement && target.matches("input, select"))) {
      event.preventDefault();
      this.input.focus();
      this.input.select();
    }
  }

  private moveTab(event: KeyboardEvent, tab: Tab): void {
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    if (step === undefined) return;
    event.preventDefault();
    const next = kTabs[(kTabs.indexOf(tab) + step + kTabs.length) % kTabs.length]!;
    this.set({ tab: next }, false);
    this.tabs.get(next)!.focus();
  }

  private recolour(): void {
    for (const graph of this.graphs) graph.recolour();
    this.libraries?.recolour();
  }

  /** On paper: the totals, the top of the functions and the flame graph. */
  private print(on: boolean): void {
    setPrinting(on);
    const { found, state } = this;
    if (on) {
      // Paper does not show the search: print all.
      this.found = null;
      this.state = { ...state, zoom: "" };
      for (const tab of ["functions", "flame"] as const) this.show(tab);
      const undo = this.functions!.startPrinting();
      this.printed = () => {
        [this.found, this.state] = [found, state];
        for (const tab of ["functions", "flame"] as const) this.show(tab);
        undo();
      };
    } else {
      this.printed();
    }
    for (const graph of this.graphs) graph.graph.setPrinting(on);
    this.recolour();
    if (!on) this.update();
  }
}

readData(document.getElementById("profile")!.textContent!)
  .then((data) => new Page(data))
  .catch((error: unknown) => {
    document.body.replaceChildren(el("p", { class: "flawed" }, `Cannot show this: ${error}`));
    throw error;
  });
