// SPDX-License-Identifier: Apache-2.0
// Colours of flame graph boxes, bars and legends: the hue tells the library, the shade the function.
// Light boxes have dark text; in the dark scheme boxes are dark and muted, with light text.

import type { Data } from "./data.js";
import type { Sums } from "./functions.js";
import type { TreeNode } from "./tree.js";

export type ColourBy = "library" | "change";

const kDark = window.matchMedia("(prefers-color-scheme: dark)");
let printing = false;

/** Paper is light. */
export function setPrinting(on: boolean): void {
  printing = on;
}

function isDark(): boolean {
  return kDark.matches && !printing;
}

/** Calls `changed` when the scheme of the system changes. */
export function onSchemeChange(changed: () => void): void {
  kDark.addEventListener("change", changed);
}

/** "nearMatch": of a box for several small ones, some of which match. */
export function palette() {
  return isDark()
    ? {
        ...{ text: "#e8ebee", plain: "hsl(215 8% 27%)", mark: "#fff" },
        ...{ match: "hsl(300 45% 45%)", nearMatch: "hsl(300 22% 34%)" },
      }
    : {
        ...{ text: "#14181c", plain: "hsl(215 12% 86%)", mark: "#14181c" },
        ...{ match: "hsl(300 80% 74%)", nearMatch: "hsl(300 40% 86%)" },
      };
}

/** Hues by weight: the largest libraries get the most distinct hues. */
export class LibraryColours {
  /** Libraries by the bytes of the stacks that have them, the larger of before and now, largest first. */
  readonly ranking: { library: number; bytes: number }[];
  private readonly rank = new Map<number, number>();

  constructor(
    private readonly data: Data,
    sums: Sums,
  ) {
    this.ranking = data.libraries.map((_, library) => {
      const now = sums.total[library]!;
      return { library, bytes: Math.max(now, now - sums.change[library]!) };
    });
    this.ranking.sort((a, b) => b.bytes - a.bytes);
    this.ranking.forEach(({ library }, rank) => this.rank.set(library, rank));
  }

  /** The colour of a library, in the middle of its functions' shades. */
  of(library: number, shade = 0): string {
    const rank = this.rank.get(library);
    if (rank === undefined) return palette().plain;
    const hue = Math.round(28 + 137.5 * rank) % 360;
    const rare = rank >= 12;
    return isDark()
      ? `hsl(${hue} ${rare ? 14 : 30}% ${33 + 6 * shade}%)`
      : `hsl(${hue} ${rare ? 30 : 62}% ${74 + 8 * shade}%)`;
  }

  ofFunction(id: number): string {
    // Spreads neighbouring numbers over -1 to 1.
    const shade = ((Math.imul(id + 1, 0x9e3779b1) >>> 16) & 255) / 127.5 - 1;
    const { library, unresolved } = this.data.functions[id]!;
    return id === this.data.cutFunction ? palette().plain : this.of(library, unresolved ? 0 : shade);
  }
}

/** Orange for growth, blue for shrinking; a larger change has a stronger colour. */
export function changeColour(node: TreeNode): string {
  return node.width === 0 ? palette().plain : changeShade((node.after - node.before) / node.width);
}

/** The colour of a change by `share` of a whole, -1 to 1. */
export function changeShade(share: number): string {
  if (share === 0) return palette().plain;
  const size = Math.min(1, Math.abs(share));
  const hue = share > 0 ? 26 : 212;
  return isDark()
    ? `hsl(${hue} ${Math.round(35 + 45 * size)}% ${Math.round(28 + 8 * size)}%)`
    : `hsl(${hue} 90% ${Math.round(86 - 22 * size)}%)`;
}

/** The colours of changes and their meaning. */
export const kChangeKey: readonly (readonly [number, string])[] = [
  [1, "grew or new"],
  [-1, "shrank or gone"],
  [0, "unchanged or not judged"],
];
