// SPDX-License-Identifier: Apache-2.0
// A table that is sorted, split into pages and whose rows open, so that the number of elements does
// not depend on the number of rows. On narrow screens rows turn into lists with labels (style.css).

import { el, formatCount } from "./dom.js";

const kRowsPerPage = 50;

/** A column of rows that are numbers, such as groups or functions. */
export interface Column {
  key: string;
  title: string;
  hint: string;
  number: boolean;
  value: (row: number) => number | string; // to sort by; NaN comes last
  cell: (row: number) => Node | string;
}

export interface TableOptions {
  id: string;
  caption: string;
  rows: number[]; // all of them
  empty?: string; // shown in place of no rows
  columns: Column[];
  sortBy: string; // key of a column
  /** Orders rows whose values are equal, largest first. */
  tie?: (row: number) => number;
  main: string; // key of the column that names the row, and has the button
  /** What a row opens to; or what a click on it does. */
  detail?: (row: number) => HTMLElement;
  picked?: (row: number) => void;
  label: (row: number) => string; // of the button
}

export class Table {
  readonly element: HTMLElement;
  private readonly head = el("tr");
  private readonly body = el("tbody");
  private readonly pager = el("nav", { class: "pager", "aria-label": "Pages of the table" });
  private readonly opened = new Set<number>();
  private readonly ordered: number[]; // all rows
  private rows: number[] = []; // the wanted ones
  private wanted: (row: number) => boolean = () => true;
  private page = 0;
  private sortBy: Column;
  private ascending = false;
  private current = -1;

  constructor(private readonly options: TableOptions) {
    this.ordered = [...options.rows];
    this.sortBy = options.columns.find(({ key }) => key === options.sortBy)!;
    this.sort();
    const { id, caption } = options;
    this.element = el(
      "div",
      {},
      el("table", { id }, el("caption", {}, caption), el("thead", {}, this.head), this.body),
      this.pager,
    );
  }

  /** Shows the wanted rows, from the first page on if they are others than before. */
  show(wanted: (row: number) => boolean): void {
    this.wanted = wanted;
    const rows = this.ordered.filter(wanted);
    if (rows.length !== this.rows.length || rows.some((row, at) => row !== this.rows[at])) this.page = 0;
    this.rows = rows;
    this.draw();
  }

  /** Turns to the row's page, and focuses its button; the head without such a row. */
  focusRow(row: number): void {
    const at = this.rows.indexOf(row);
    if (at >= 0) this.page = Math.floor(at / kRowsPerPage);
    this.draw();
    const button = this.body.querySelector<HTMLElement>(`[data-row="${row}"] .toggle`);
    (button ?? this.head.querySelector("button"))?.focus();
  }

  /** For paper: the first page in the first order. Returns what undoes it. */
  startPrinting(): () => void {
    const { sortBy, ascending, page } = this;
    this.sortOn(this.options.columns.find(({ key }) => key === this.options.sortBy)!, false);
    return () => {
      this.sortOn(sortBy, ascending);
      this.page = page * kRowsPerPage < this.rows.length ? page : 0;
      this.draw();
    };
  }

  /** Marks a row; -1 for none. */
  setCurrent(row: number): void {
    if (row === this.current) return;
    this.current = row;
    this.draw();
  }

  private drawHead(): void {
    this.head.replaceChildren(
      ...this.options.columns.map((column) => {
        const { key, title, hint, number } = column;
        const order = column !== this.sortBy ? "none" : this.ascending ? "ascending" : "descending";
        return el(
          "th",
          { scope: "col", class: `${key} ${number ? "number" : ""}`, "aria-sort": order },
          el("button", { type: "button", title: hint, "data-sort": key, onclick: () => this.pressed(column) }, title),
        );
      }),
    );
  }

  private pressed(column: Column): void {
    this.sortOn(column, column === this.sortBy ? !this.ascending : !column.number);
    this.head.querySelector<HTMLElement>(`[data-sort=${column.key}]`)!.focus();
  }

  private sortOn(column: Column, ascending: boolean): void {
    this.sortBy = column;
    this.ascending = ascending;
    this.page = 0;
    this.sort();
    this.show(this.wanted);
  }

  private sort(): void {
    this.drawHead();
    const { value } = this.sortBy;
    const { tie = () => 0 } = this.options;
    // Computes each value once.
    const values: (number | string)[] = [];
    for (const row of this.ordered) values[row] = value(row);
    const sign = this.ascending ? 1 : -1;
    this.ordered.sort((a, b) => {
      const [x, y] = [values[a]!, values[b]!];
      if (x !== x || y !== y) return Number(x !== x) - Number(y !== y) || a - b;
      return (x < y ? -sign : x > y ? sign : 0) || tie(b) - tie(a) || a - b;
    });
  }

  /** Draws the page of rows, for example in other colours. */
  draw(): void {
    const first = this.page * kRowsPerPage;
    const rows = this.rows.slice(first, first + kRowsPerPage);
    this.body.replaceChildren(...rows.flatMap((row) => this.row(row)));
    if (rows.length === 0) {
      const span = { colspan: this.options.columns.length, class: "empty" };
      this.body.append(el("tr", {}, el("td", span, this.ordered.length === 0 ? (this.options.empty ?? "Nothing is listed.") : "Nothing matches.")));
    }
    this.drawPager();
  }

  private drawPager(): void {
    const pages = Math.max(1, Math.ceil(this.rows.length / kRowsPerPage));
    this.pager.hidden = pages === 1;
    const turn = (name: string, page: number) =>
      el(
        "button",
        {
          type: "button",
          disabled: page < 0 || page >= pages || page === this.page,
          onclick: () => {
            this.page = page;
            this.draw();
            const again = [...this.pager.querySelectorAll<HTMLElement>("button:enabled")];
            (again.find((button) => button.textContent === name) ?? again[0])?.focus();
          },
        },
        name,
      );
    this.pager.replaceChildren(
      turn("First", 0),
      turn("Previous", this.page - 1),
      el("span", {}, `Page ${formatCount(this.page + 1)} of ${formatCount(pages)}`),
      turn("Next", this.page + 1),
      turn("Last", pages - 1),
    );
  }

  private row(row: number): HTMLElement[] {
    const { columns, main, label, picked, detail } = this.options;
    const toggle = el("button", { type: "button", class: "toggle", "aria-label": label(row) });
    if (detail) toggle.setAttribute("aria-expanded", String(this.opened.has(row)));
    const line = el("tr", { class: "row", "data-row": row });
    if (row === this.current) line.setAttribute("aria-current", "true");
    for (const column of columns) {
      const { key, number, title } = column;
      const cell = el("td", { class: `${key} ${number ? "number" : ""}`, "data-label": title });
      if (key === main) cell.append(el("div", { class: "main" }, toggle, column.cell(row)));
      else cell.append(column.cell(row));
      line.append(cell);
    }
    let open: HTMLElement | null = this.opened.has(row) ? this.detail(row) : null;
    line.addEventListener("click", () => {
      if (picked) return picked(row);
      open?.remove();
      open = open ? null : this.detail(row);
      if (open) {
        line.after(open);
        this.opened.add(row);
      } else {
        this.opened.delete(row);
      }
      toggle.setAttribute("aria-expanded", String(open !== null));
    });
    return open ? [line, open] : [line];
  }

  private detail(row: number): HTMLElement {
    const { columns, detail } = this.options;
    return el("tr", { class: "detail" }, el("td", { colspan: columns.length }, detail!(row)));
  }
}
