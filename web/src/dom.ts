// SPDX-License-Identifier: Apache-2.0
// Builds elements and formats figures. Texts are always set as text, never as markup: names come from
// the watched program.

import { cutText } from "./names.js";

type Child = Node | string | null;

/** An element with attributes ("on…" members are listeners, `false` leaves one out) and children. */
export function el<K extends keyof HTMLElementTagNameMap>(
  tag: K,
  attributes: Record<string, string | number | boolean | ((event: Event) => void)> = {},
  ...children: Child[]
): HTMLElementTagNameMap[K] {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === "function") element.addEventListener(name.slice(2), value);
    else if (value !== false) element.setAttribute(name, value === true ? "" : String(value));
  }
  element.append(...children.filter((child) => child !== null));
  return element;
}

/** A text cut to `limit` characters, with a button that shows all of it. */
export function longText(text: string, limit: number): HTMLElement {
  if (text.length <= limit) return el("span", {}, text);
  const shown = el("span", {}, cutText(text, limit));
  const more = `all ${formatCount(text.length)} characters`;
  const button = el(
    "button",
    {
      type: "button",
      class: "more",
      "aria-expanded": "false",
      onclick: (event) => {
        event.stopPropagation();
        const open = button.getAttribute("aria-expanded") !== "true";
        button.setAttribute("aria-expanded", String(open));
        button.textContent = open ? "less" : more;
        shown.textContent = open ? text : cutText(text, limit);
      },
    },
    more,
  );
  return el("span", { class: "long" }, shown, " ", button);
}

export function formatCount(count: number): string {
  return String(count).replace(/\B(?=(\d{3})+$)/g, ",");
}

export function plural(count: number, noun: string): string {
  return `${formatCount(count)} ${noun}${count === 1 ? "" : "s"}`;
}

/** "512 B", "1.5 KiB", … with one decimal above bytes. */
export function formatBytes(bytes: number): string {
  const units = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];
  let unit = 0;
  let value = bytes;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    ++unit;
  }
  return `${unit === 0 ? value : value.toFixed(1)} ${units[unit]}`;
}

/** A change, with its sign. */
export function signed(change: number, format: (figure: number) => string): string {
  return `${change > 0 ? "+" : change < 0 ? "−" : ""}${format(Math.abs(change))}`;
}

/** "8s", "3m 20s", "2h 5m", "1d 4h"; a negative age (the clock was set back) keeps its sign. */
export function formatAge(seconds: number): string {
  const units: [string, number][] = [
    ["d", 86400],
    ["h", 3600],
    ["m", 60],
    ["s", 1],
  ];
  const sign = seconds < 0 ? "−" : "";
  const whole = Math.abs(Math.round(seconds));
  const first = Math.max(0, units.findIndex(([, length]) => whole >= length));
  if (whole === 0) return "0s";
  let rest = whole;
  const parts: string[] = [];
  for (const [name, length] of units.slice(first, first + 2)) {
    const count = Math.floor(rest / length);
    rest -= count * length;
    if (count > 0) parts.push(`${count}${name}`);
  }
  return sign + parts.join(" ");
}

export function formatShare(part: number, whole: number): string {
  return whole > 0 ? `${((100 * part) / whole).toFixed(1)} %` : "–";
}

/** A labelled selection. */
export function choice<T extends string>(
  label: string,
  values: [T, string][],
  changed: (value: T) => void,
): HTMLElement {
  const select = el("select", { onchange: () => changed(select.value as T) });
  for (const [value, text] of values) select.append(el("option", { value }, text));
  return el("label", {}, label, " ", select);
}

/** A function that calls `action` once its own calls have stopped for `delay` milliseconds. */
export function settled(delay: number, action: () => void): () => void {
  let timer = 0;
  return () => {
    window.clearTimeout(timer);
    timer = window.setTimeout(action, delay);
  };
}

/** A bar for a share of 0 to 1, with a darker part for `inner`. It has no text. */
export function shareBar(share: number, inner = share): HTMLElement {
  const bar = el("span", { class: "bar", "aria-hidden": "true" });
  bar.style.setProperty("--share", `${(100 * Math.min(1, share)).toFixed(2)}%`);
  bar.style.setProperty("--inner", `${(100 * Math.min(1, inner)).toFixed(2)}%`);
  return bar;
}
