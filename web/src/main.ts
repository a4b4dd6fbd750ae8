// Starts the page: reads the document that it carries and puts its parts together.

import "./style.css";
import { LibraryColours, type ColourBy } from "./colours.js";
import { choice, el, formatBytes, formatCount, longText, settled } from "./dom.js";
import { FlameView } from "./flame.js";
import { matchingFrames, type Measure, type Profile, readProfile } from "./profile.js";
import { summary } from "./summary.js";
import { GroupTable } from "./table.js";
import type { TreeNode } from "./tree.js";

const kLegendSize = 12;
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
    oninput: settled(kTypingPause, () => this.searched()),
  });
  private readonly filter = el("input", {
    ...{ type: "search", id: "filter", placeholder: "function, library or /pattern/" },
    oninput: settled(kTypingPause, () => this.showRows()),
  });
  private readonly legend: HTMLElement;
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
    this.legend = this.makeLegend();
    this.showRows();
  }

  elements(): HTMLElement[] {
    return [
      summary(this.profile),
      el(
        "main",
        {},
        el("h2", {}, "Call stacks"),
        this.flameControls(),
        this.zoomPath,
        this.flame.element,
        this.legend,
        el("h2", {}, "Groups"),
        el("p", { class: "hint" }, "Blocks of one size with one stack. A row opens to its stack."),
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
            (colourBy) => {
              this.flame.setColourBy(colourBy);
              this.legend.hidden = colourBy !== "library";
            },
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

  private makeLegend(): HTMLElement {
    const list = el("ul", { class: "legend", "aria-label": "Colours of libraries" });
    list.hidden = this.profile.isDiff; // coloured by change at first
    for (const { library, bytes } of this.colours.ranking.slice(0, kLegendSize)) {
      const swatch = el("i");
      swatch.style.background = this.colours.of(library);
      const name = this.profile.doc.libraries[library]?.name ?? "no library";
      list.append(
        el("li", {}, swatch, longText(name, 60), el("small", {}, ` in stacks of ${formatBytes(bytes)}`)),
      );
    }
    return list;
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
