// SPDX-License-Identifier: Apache-2.0
// The table of groups: sorted, filtered and split into pages, so that the number of elements does not
// depend on the number of groups. Each row opens to its stack and ages.

import { ageChart, ageRange, ageText, patternWord } from "./ages.js";
import { cutText, el, formatBytes, formatCount, longText, plural, signed } from "./dom.js";
import type { Frame, Group, Profile } from "./profile.js";

const kRowsPerPage = 50;
const kWhereLimit = 160;
const kNameLimit = 300;

// Functions that only pass a request on.
const kAllocators =
  /^(_*(malloc|calloc|realloc|reallocarray|memalign|posix_memalign|aligned_alloc|p?valloc|strn?dup)$|operator new|std::|__gnu_cxx::|(void|char\b.*) std::)/;

interface Column {
  key: string;
  title: string;
  hint: string;
  number: boolean;
  value: (group: Group) => number | string;
  text: (group: Group) => string;
}

/** "48 B", or "100 B–4.9 KiB". */
function sizeText({ size, maxSize = size }: Group): string {
  return maxSize > size ? `${formatBytes(size)}–${formatBytes(maxSize)}` : formatBytes(size);
}

export class GroupTable {
  readonly element: HTMLElement;
  private readonly columns: Column[];
  private readonly head = el("tr");
  private readonly body = el("tbody");
  private readonly status = el("p", { class: "row-count", role: "status" });
  private readonly pager = el("nav", { class: "pager", "aria-label": "Pages of the table" });
  private readonly opened = new Set<number>();
  private shown: number[] = [];
  private page = 0;
  private sortBy: Column;
  private ascending = false;

  constructor(private readonly profile: Profile) {
    this.columns = this.makeColumns();
    this.sortBy = this.columns.find(({ key }) => key === (profile.isDiff ? "growth" : "total"))!;
    this.drawHead();
    this.element = el(
      "div",
      {},
      this.status,
      el(
        "div",
        { class: "scroller" },
        el("table", { id: "groups" }, el("thead", {}, this.head), this.body),
      ),
      this.pager,
    );
  }

  /** Shows these groups in the current order. */
  show(groups: number[]): void {
    this.shown = [...groups];
    this.sort();
  }

  private makeColumns(): Column[] {
    const columns: Column[] = [
      {
        ...{ key: "total", title: "Total", hint: "Bytes of all blocks", number: true },
        value: (group) => group.total,
        text: (group) => formatBytes(group.total),
      },
      {
        ...{ key: "count", title: "Blocks", hint: "Number of blocks", number: true },
        value: (group) => group.count,
        text: (group) => formatCount(group.count),
      },
      {
        ...{ key: "size", title: "Size", hint: "Bytes of one block", number: true },
        value: (group) => group.size,
        text: sizeText,
      },
    ];
    if (this.profile.isDiff) {
      columns.push(
        {
          ...{ key: "growth", title: "Change", hint: "Bytes since the older report", number: true },
          value: (group) => this.profile.growth(group) ?? NaN,
          text: (group) => this.growthText(group),
        },
        {
          ...{ key: "status", title: "Status", hint: "Compared with the older report", number: false },
          value: (group) => group.status ?? "",
          text: (group) => group.status ?? "",
        },
      );
    }
    columns.push(
      {
        ...{ key: "age", title: "Age", hint: "Youngest to oldest block", number: true },
        value: (group) => (group.ages.length > 0 ? ageRange(group)[1] : -Infinity),
        text: (group) => ageText(group),
      },
      {
        ...{ key: "pattern", title: "Ages say", hint: "What the ages say about growth", number: false },
        value: patternWord,
        text: patternWord,
      },
      {
        ...{ key: "where", title: "Allocated in", hint: "The innermost frame that is no allocator", number: false },
        value: (group) => this.where(group),
        text: (group) => cutText(this.where(group), kWhereLimit),
      },
    );
    return columns;
  }

  /** The innermost frame in which the program itself requests memory. */
  private place(group: Group): Frame | undefined {
    const { frames } = this.profile.doc;
    const at = group.stack.find((index) => !kAllocators.test(frames[index]!.name));
    return frames[at ?? group.stack[0] ?? -1];
  }

  private where(group: Group): string {
    return this.place(group)?.name ?? "[no stack]";
  }

  private drawHead(): void {
    this.head.replaceChildren(
      ...this.columns.map((column) => {
        const sorted = column === this.sortBy;
        const order = this.ascending ? "ascending" : "descending";
        return el(
          "th",
          {
            scope: "col",
            class: `${column.key} ${column.number ? "number" : ""}`,
            "aria-sort": sorted ? order : "none",
          },
          el(
            "button",
            {
              type: "button",
              title: column.hint,
              "data-sort": column.key,
              onclick: () => this.sortOn(column),
            },
            column.title,
          ),
        );
      }),
    );
  }

  private sortOn(column: Column): void {
    this.ascending = column === this.sortBy ? !this.ascending : !column.number;
    this.sortBy = column;
    this.drawHead();
    this.head.querySelector<HTMLElement>(`[data-sort=${column.key}]`)!.focus();
    this.sort();
  }

  private sort(): void {
    const { groups } = this.profile.doc;
    const { value } = this.sortBy;
    // Computes each value once. Unknown values come last.
    const values = new Map(this.shown.map((at) => [at, value(groups[at]!)]));
    const sign = this.ascending ? 1 : -1;
    this.shown.sort((a, b) => {
      const [x, y] = [values.get(a)!, values.get(b)!];
      if (x !== x || y !== y) return Number(x !== x) - Number(y !== y) || a - b;
      return (x < y ? -sign : x > y ? sign : 0) || a - b;
    });
    this.page = 0;
    this.draw();
  }

  private draw(): void {
    const { groups } = this.profile.doc;
    const first = this.page * kRowsPerPage;
    const rows = this.shown.slice(first, first + kRowsPerPage);
    this.body.replaceChildren(...rows.flatMap((at) => this.row(groups[at]!, at)));
    this.status.textContent = this.sums();
    this.drawPager();
  }

  private growthText(group: Group): string {
    const growth = this.profile.growth(group);
    return growth === null ? "–" : signed(growth, formatBytes);
  }

  /** The sums of the shown groups. */
  private sums(): string {
    const { groups } = this.profile.doc;
    let [held, growth, notJudged] = [0, 0, 0];
    for (const at of this.shown) {
      const change = this.profile.growth(groups[at]!);
      held += groups[at]!.total;
      growth += change ?? 0;
      notJudged += change === null ? 1 : 0;
    }
    const all = groups.length;
    const which = this.shown.length === all ? "" : ` of ${formatCount(all)}`;
    const text =
      `${formatCount(this.shown.length)}${which} ${all === 1 ? "group holds" : "groups hold"} ` +
      `${formatBytes(held)} (${formatCount(held)} bytes)`;
    if (!this.profile.isDiff) return text;
    const rest = notJudged === 0 ? "" : `, without ${plural(notJudged, "group")} not judged`;
    return `${text}; change: ${signed(growth, formatBytes)}${rest}`;
  }

  private drawPager(): void {
    const pages = Math.max(1, Math.ceil(this.shown.length / kRowsPerPage));
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

  private row(group: Group, at: number): HTMLElement[] {
    const open = this.opened.has(at);
    const toggle = el("button", {
      type: "button",
      class: "toggle",
      "aria-expanded": String(open),
      "aria-label": `Group ${at + 1}: stack and ages`,
    });
    const row = el("tr", { class: "group", "data-group": at });
    for (const column of this.columns) {
      const cell = el("td", { class: `${column.key} ${column.number ? "number" : ""}` });
      if (column.key === "where") {
        const place = this.place(group);
        const name = place ? this.profile.libraryName(place) : "";
        cell.append(toggle, el("code", {}, column.text(group)), el("small", {}, ` ${name}`));
      } else {
        cell.append(column.text(group));
      }
      if (column.key === "status" || column.key === "growth") cell.dataset["status"] = group.status;
      row.append(cell);
    }
    let detail = open ? this.detail(group) : null;
    row.addEventListener("click", () => {
      const opening = detail === null;
      if (detail) detail.remove();
      detail = opening ? this.detail(group) : null;
      if (detail) row.after(detail);
      if (opening) this.opened.add(at);
      else this.opened.delete(at);
      toggle.setAttribute("aria-expanded", String(opening));
    });
    return detail ? [row, detail] : [row];
  }

  private detail(group: Group): HTMLElement {
    const { doc, span } = this.profile;
    return el(
      "tr",
      { class: "detail" },
      el(
        "td",
        { colspan: this.columns.length },
        el("p", {}, this.figures(group)),
        group.count > 0 && group.kind === "native" ? ageChart(group, span) : null,
        el("ol", { class: "stack" }, ...group.stack.map((index) => this.frame(doc.frames[index]!))),
      ),
    );
  }

  /** The figures of both reports in words. */
  private figures(group: Group): string {
    const held = ({ count, total }: { count: number; total: number }) =>
      `${plural(count, "block")}, ${formatCount(total)} bytes`;
    const kind = group.kind === "java" ? "Java-native: " : "";
    const largest = group.maxSize ?? 0;
    const range = largest > group.size ? `${formatCount(group.size)} to ${formatCount(largest)} bytes` : "";
    const text = `${kind}${held(group)}, of ${range || plural(group.size, "byte")} each`;
    if (!this.profile.isDiff || !group.before) return text;
    const judged = group.status === "unknown" ? ". Not judged: one report omits groups" : "";
    return `${text}; before: ${held(group.before)}${judged}.`;
  }

  private frame(frame: Frame): HTMLElement {
    const library = this.profile.libraryName(frame);
    const place = frame.file === "" ? "" : `${frame.file}:${frame.line}`;
    const offset = frame.function === "" || library === "" ? "" : `+0x${frame.offset.toString(16)}`;
    return el(
      "li",
      {},
      el("code", {}, longText(frame.name, kNameLimit)),
      frame.inlined ? el("em", {}, " inlined") : null,
      place === "" ? null : el("span", { class: "source" }, " ", longText(place, kNameLimit)),
      frame.function === "" || library === "" ? null : el("small", {}, ` ${library}${offset}`),
    );
  }
}
