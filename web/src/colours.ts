// Colours of flame graph boxes and of their legend. Boxes carry dark text in the light scheme and in
// the dark one, so all are of medium lightness.

import type { Profile } from "./profile.js";
import type { TreeNode } from "./tree.js";

export type ColourBy = "library" | "change";

export const kMatchColour = "hsl(300 85% 72%)";
/** Boxes too small to be drawn one by one, some of which match. */
export const kNearMatchColour = "hsl(300 50% 84%)";
export const kPlainColour = "hsl(220 8% 76%)";

/** Hues by weight: the heaviest libraries get those that are furthest apart. */
export class LibraryColours {
  /** Libraries by the bytes whose allocation lies in them, heaviest first. */
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

/** Fills of groups that one report lists and the other may merely have left out, or parts of them. */
export const kMaybeNew = "url(#maybe-new)";
export const kMaybeGone = "url(#maybe-gone)";

/**
 * Warm for growth, blue for shrinking, the stronger the larger the change is beside the node;
 * hatched where more is uncertain than certain.
 */
export function changeColour(node: TreeNode): string {
  if (node.width === 0) return kPlainColour;
  if (node.unsure > Math.abs(node.sure) && 2 * node.unsure >= node.width) {
    return node.after.least >= node.before.least ? kMaybeNew : kMaybeGone;
  }
  return shade(node.sure / node.width);
}

/** The colour of a change by `share` of a whole, -1 to 1. */
function shade(share: number): string {
  if (share === 0) return kPlainColour;
  const lightness = Math.round(86 - 26 * Math.min(1, Math.abs(share)));
  return share > 0 ? `hsl(14 90% ${lightness}%)` : `hsl(212 85% ${lightness}%)`;
}

/** The colours of changes and what they mean. */
export const kChangeKey: readonly (readonly [string, string])[] = [
  [shade(1), "grew or new"],
  [shade(-1), "shrank or gone"],
  [kPlainColour, "the same"],
  [kMaybeNew, "more listed now, but the old list is not whole"],
  [kMaybeGone, "less listed now, but the new list is not whole"],
];
