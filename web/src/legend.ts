// SPDX-License-Identifier: Apache-2.0
// The legends of the flame graph: colours of libraries and of changes.

import { kChangeKey, type LibraryColours } from "./colours.js";
import { el, formatBytes, longText } from "./dom.js";
import type { Profile } from "./profile.js";

const kLibraries = 12;

function swatch(colour: string): HTMLElement {
  const box = el("span", { class: "swatch", "aria-hidden": "true" });
  box.style.background = colour;
  return box;
}

export function libraryLegend(profile: Profile, colours: LibraryColours): HTMLElement {
  const list = el("ul", { class: "legend", "aria-label": "Colours of libraries" });
  for (const { library, bytes } of colours.ranking.slice(0, kLibraries)) {
    const known = profile.doc.libraries[library];
    const name = known ? known.name || "(nameless)" : "no library";
    const weight = el("small", {}, ` in stacks of ${formatBytes(bytes)}`);
    list.append(el("li", {}, swatch(colours.of(library)), longText(name, 60), weight));
  }
  const others = colours.ranking.length - kLibraries;
  if (others > 0) list.append(el("li", {}, el("small", {}, `and ${others} more`)));
  return list;
}

export function changeLegend(): HTMLElement {
  const list = el("ul", { class: "legend", "aria-label": "Colours of changes" });
  for (const [fill, text] of kChangeKey) list.append(el("li", {}, swatch(fill), text));
  list.append(el("li", {}, el("small", {}, "A box is as wide as the larger of before and now.")));
  return list;
}
