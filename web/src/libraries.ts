// SPDX-License-Identifier: Apache-2.0
// The tab of libraries: the sums of each, and its functions that hold most.

import type { LibraryColours } from "./colours.js";
import type { Data } from "./data.js";
import { el, formatBytes, shareBar } from "./dom.js";
import { type Sums, sumColumns, sumsBy } from "./functions.js";
import { cutText } from "./names.js";
import type { Found } from "./search.js";
import { Table } from "./table.js";

const kFunctions = 10;

/** By library. Frames without one are the last row. */
export function librarySums(data: Data): Sums {
  const none = data.libraries.length;
  return sumsBy(data, none + 1, (id) => {
    const { library } = data.functions[id]!;
    return library < 0 ? none : library;
  });
}

export class LibrariesTab {
  readonly element: HTMLElement;
  private readonly table: Table;

  constructor(
    private readonly data: Data,
    sums: Sums,
    private readonly functionSums: () => Sums,
    colours: LibraryColours,
    private readonly pick: (id: number) => void,
  ) {
    const none = data.libraries.length;
    const name = (row: number) => (row === none ? "[unknown]" : data.libraryName(row));
    this.table = new Table({
      rows: [...Array(none + 1).keys()].filter((row) => sums.total[row]! > 0 || sums.change[row] !== 0),
      ...{ id: "libraries", caption: "Libraries by the memory that they hold", sortBy: data.isDiff ? "self-growth" : "self" },
      tie: (row) => sums.total[row]!,
      main: "where",
      columns: [
        {
          ...{ key: "where", title: "Library", hint: "File name", number: false },
          value: name,
          cell: (row) => {
            const swatch = el("span", { class: "swatch", "aria-hidden": "true" });
            swatch.style.background = colours.of(row);
            const path = data.libraries[row]?.path ?? "";
            return el("span", { class: "name" }, swatch, el("code", { title: path }, cutText(name(row), 200)));
          },
        },
        ...sumColumns(data, sums, "library"),
      ],
      label: (row) => `Functions of ${cutText(name(row), 80)}`,
      detail: (row) => this.detail(row === none ? -1 : row),
    });
    this.element = this.table.element;
  }

  update(found: Found | null): void {
    const typed = found?.functions;
    const wanted = new Set<number>();
    this.data.functions.forEach(({ library }, id) => {
      if (!typed || typed[id] === 1) wanted.add(library < 0 ? this.data.libraries.length : library);
    });
    this.table.show((row) => wanted.has(row));
  }

  /** After a change of the colour scheme. */
  recolour(): void {
    this.table.draw();
  }

  private detail(library: number): HTMLElement {
    const { self, total } = this.functionSums();
    const ids = [...this.data.functions.keys()].filter(
      (id) => id !== this.data.cutFunction && this.data.functions[id]!.library === library && total[id]! > 0,
    );
    ids.sort((a, b) => self[b]! - self[a]! || total[b]! - total[a]!);
    const whole = this.data.totals.listedBytes + this.data.totals.javaBytes;
    const known = this.data.libraries[library];
    return el(
      "div",
      {},
      known ? el("p", {}, el("code", {}, known.path), known.buildId === "" ? "" : ` build id ${known.buildId}`) : null,
      known && known.hint !== "" ? el("p", { class: "hint" }, "For (more) symbols: ", el("code", {}, known.hint)) : null,
      el(
        "ul",
        { class: "calls" },
        ...ids.slice(0, kFunctions).map((id) => {
          const name = cutText(this.data.functions[id]!.short, 200);
          const link = el("button", { type: "button", class: "link", onclick: () => this.pick(id) }, name);
          const figures = el("span", { class: "figures" }, `${formatBytes(self[id]!)} self`);
          return el("li", {}, el("div", { class: "call" }, shareBar(total[id]! / whole, self[id]! / whole), figures, link));
        }),
      ),
    );
  }
}
