// SPDX-License-Identifier: Apache-2.0
// Colours of flame graph boxes and of their legend. Boxes have dark text in the light and the dark
// scheme, so all colours are light.

import type { Profile } from "./profile.js";
import type { TreeNode } from "./tree.js";

export type ColourBy = "library" | "change";

export const kMatchColour = "hsl(300 85% 72%)";
/** A box for several small ones, some of which match. */
export const kNearMatchColour = "hsl(300 50% 84%)";
export const kPlainColour = "hsl(220 8% 76%)";

/** Hues by weight: those of the largest libraries differ most. */
export class LibraryColours {
  /** Libraries by the bytes of the groups that have them on their stacks, largest first. */
  readonly ranking: { library: number; bytes: number }[];
  private readonly colours = new Map<number, string>();

  constructor(profile: Profile) {
    const bytes = new Map<number, number>();
    for (const group of profile.doc.groups) {
      for (const library of new Set(group.stack.map((at) => profile.doc.frames[at]!.library))) {
        bytes.set(library, (bytes.get(library) ?? 0) + Math.max(group.total, group.before?.total ?? 0));
      }
    }
    this.ranking = [...bytes]
      .map(([library, total]) => ({ library, bytes: total }))
      .sort((a, b) => b.bytes - a.bytes);
    let rank = 0;
    for (const { library } of this.ranking) {
      if (library < 0) continue;
      const hue = Math.round(28 + 137.5 * rank) % 360;
      this.colours.set(library, `hsl(${hue} ${rank < 12 ? 70 : 35}% 70%)`);
      ++rank;
    }
  }

  of(library: number): string {
    return this.colours.get(library) ?? kPlainColour;
  }
}

/** Warm for growth, blue for shrinking, and the darker the larger the change is. */
export function changeColour(node: TreeNode): string {
  return node.width === 0 ? kPlainColour : shade((node.after - node.before) / node.width);
}

/** The colour of a change by `share` of a whole, -1 to 1. */
function shade(share: number): string {
  if (share === 0) return kPlainColour;
  const lightness = Math.round(86 - 26 * Math.min(1, Math.abs(share)));
  return share > 0 ? `hsl(14 90% ${lightness}%)` : `hsl(212 85% ${lightness}%)`;
}

/** The colours of changes and their meaning. */
export const kChangeKey: readonly (readonly [string, string])[] = [
  [shade(1), "grew or new"],
  [shade(-1), "shrank or gone"],
  [kPlainColour, "unchanged or not judged"],
];
