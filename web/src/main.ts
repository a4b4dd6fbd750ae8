// SPDX-License-Identifier: Apache-2.0
// Starts the page: reads its document and puts its parts together.

import "./style.css";
import { LibraryColours, type ColourBy } from "./colours.js";
import { choice, el, formatBytes, formatCount, longText, settled } from "./dom.js";
import { FlameView } from "./flame.js";
import { changeLegend, libraryLegend } from "./legend.js";
import { matchingFrames, type Measure, type Profile, readProfile } from "./profile.js";
import { summary } from "./summary.js";
import { GroupTable } from "./table.js";
import type { TreeNode } from "./tree.js";

const kTypingPause = 150; // milliseconds

type Kind = "all" | "native" | "java";

class Page {
  private readonly colours: LibraryColours;
  private readonly flame: FlameView;
  private readonly table: GroupTable;
  private readonly found = el("output", { id: "found" });
  private readonly zoomPath = el("div", { id: "zoom-path" });
  private readonly resetButton = el(
    "button",
    { type: "button", id: "reset", disabled: true, onclick: () => this.flame.reset() },
    "Reset zoom",
  );
  private readonly search = el("input", {
    ...{ type: "search", id: "search", placeholder: "function, library or /pattern/" },
    ...{ "aria-keyshortcuts": "/", title: "Press / to search, Escape to clear" },
    oninput: settled(kTypingPause, () => this.searched()),
  });
  private readonly filter = el("input", {
    ...{ type: "search", id: "filter", placeholder: "function, library or /pattern/" },
    oninput: settled(kTypingPause, () => this.showRows()),
  });
  private readonly libraryLegend: HTMLElement;
  private readonly changeLegend: HTMLElement;
  private kind: Kind = "all";
  private status = "all";
  private within: TreeNode | null = null;

  constructor(private readonly profile: Profile) {
    this.colours = new LibraryColours(profile);
    this.table = new GroupTable(profile);
    this.flame = new FlameView(profile, this.colours, this.groupsOfKind(), (node) => {
      this.within = node;
      this.showZoom();
      this.showRows();
    });
    this.libraryLegend = libraryLegend(profile, this.colours);
    this.changeLegend = changeLegend();
    this.colourBy(profile.isDiff ? "change" : "library");
    this.showRows();
    document.addEventListener("keydown", (event) => this.pressed(event));
  }

  elements(): Element[] {
    return [
      summary(this.profile),
      el(
        "main",
        {},
        el("h2", {}, "Call stacks"),
        this.flameControls(),
        this.zoomPath,
        this.flame.element,
        this.libraryLegend,
        this.changeLegend,
        el("h2", {}, "Groups"),
        el("p", { class: "hint" }, "Blocks with one stack, in a report of one size. A row opens to its stack."),
        this.tableControls(),
        this.table.element,
      ),
    ];
  }

  private flameControls(): HTMLElement {
    const { isDiff, doc } = this.profile;
    const kinds = new Set(doc.groups.map((group) => group.kind));
    const flip = el("input", {
      ...{ type: "checkbox", id: "flip" },
      onchange: () => this.flame.flip(!flip.checked),
    });
    return el(
      "div",
      { class: "controls" },
      el("label", {}, "Search ", this.search),
      this.found,
      choice<"callers" | "allocation">(
        "Start at",
        [
          ["callers", "the outermost callers"],
          ["allocation", "the allocation"],
        ],
        "callers",
        (from) => this.flame.setDirection(from === "allocation"),
      ),
      choice<Measure>(
        "Width by",
        [
          ["bytes", "bytes"],
          ["count", "number of blocks"],
        ],
        "bytes",
        (measure) => this.flame.setMeasure(measure),
      ),
      isDiff
        ? choice<ColourBy>(
            "Colour by",
            [
              ["change", "change"],
              ["library", "library"],
            ],
            "change",
            (colourBy) => this.colourBy(colourBy),
          )
        : null,
      kinds.size > 1
        ? choice<Kind>(
            "Stacks",
            [
              ["all", "all"],
              ["native", "native"],
              ["java", "Java-native"],
            ],
            "all",
            (kind) => {
              this.kind = kind;
              this.flame.setGroups(this.groupsOfKind());
              this.searched();
            },
          )
        : null,
      el("label", {}, flip, " upside down"),
      this.resetButton,
    );
  }

  private tableControls(): HTMLElement {
    const statuses = [...new Set(this.profile.doc.groups.map((group) => group.status ?? ""))];
    return el(
      "div",
      { class: "controls" },
      el("label", {}, "Filter ", this.filter),
      this.profile.isDiff
        ? choice<string>(
            "Status",
            [["all", "all"], ...statuses.sort().map((name): [string, string] => [name, name])],
            "all",
            (status) => {
              this.status = status;
              this.showRows();
            },
          )
        : null,
    );
  }

  /** "/" focuses the search, except in an input. Escape clears an input. */
  private pressed(event: KeyboardEvent): void {
    const { key, target } = event;
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    const input = [this.search, this.filter].find((search) => search === target);
    if (key === "Escape" && input) {
      event.preventDefault();
      input.value = "";
      input.dispatchEvent(new Event("input"));
    } else if (key === "/" && !(target instanceof HTMLElement && target.matches("input, select"))) {
      event.preventDefault();
      this.search.focus();
      this.search.select();
    }
  }

  private colourBy(colourBy: ColourBy): void {
    this.flame.setColourBy(colourBy);
    this.libraryLegend.hidden = colourBy !== "library";
    this.changeLegend.hidden = colourBy !== "change";
  }

  private groupsOfKind(): number[] {
    const all = [...this.profile.doc.groups.keys()];
    return all.filter((at) => this.kind === "all" || this.profile.doc.groups[at]!.kind === this.kind);
  }

  private groupsWith(frames: Set<number>, among: number[]): number[] {
    const { groups } = this.profile.doc;
    return among.filter((at) => groups[at]!.stack.some((frame) => frames.has(frame)));
  }

  private searched(): void {
    const typed = this.search.value.trim();
    document.body.classList.toggle("searching", typed !== "");
    if (typed === "") {
      this.flame.highlight(null, []);
      this.found.textContent = "";
      return;
    }
    const frames = matchingFrames(this.profile, typed);
    const groups = this.groupsWith(frames, this.groupsOfKind());
    const bytes = groups.reduce((sum, at) => sum + this.profile.doc.groups[at]!.total, 0);
    const functions = new Set([...frames].map((frame) => this.profile.functionOf[frame]!));
    this.flame.highlight(functions, groups);
    this.found.textContent =
      `${formatCount(functions.size)} found, in stacks that hold ${formatBytes(bytes)}` +
      ` (${formatCount(groups.length)} groups)`;
  }

  private showZoom(): void {
    this.resetButton.disabled = this.within === null;
    this.zoomPath.replaceChildren(
      ...(this.within
        ? ["Zoomed to ", longText(this.within.name, 120), "; the table shows its groups only."]
        : []),
    );
  }

  private showRows(): void {
    const { groups } = this.profile.doc;
    let rows = this.within ? this.within.groups : this.groupsOfKind();
    const typed = this.filter.value.trim();
    if (typed !== "") rows = this.groupsWith(matchingFrames(this.profile, typed), rows);
    if (this.status !== "all") rows = rows.filter((at) => groups[at]!.status === this.status);
    this.table.show(rows);
  }
}

function start(): void {
  try {
    const text = document.getElementById("profile")!.textContent!;
    document.body.replaceChildren(...new Page(readProfile(text)).elements());
  } catch (error) {
    document.body.replaceChildren(el("p", { class: "flawed" }, `Cannot show this: ${error}`));
    throw error;
  }
}

start();
