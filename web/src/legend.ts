// What the colours of the flame graph mean: of libraries, and in a difference of changes.

import { kChangeKey, kMaybeGone, kMaybeNew, type LibraryColours } from "./colours.js";
import { el, formatBytes, longText } from "./dom.js";
import type { Profile } from "./profile.js";

const kLibraries = 12;

function svg(tag: string, attributes: Record<string, string | number>, ...children: Node[]): SVGElement {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, String(value));
  element.append(...children);
  return element;
}

// Drawn as the boxes are, so that hatched ones look the same.
function swatch(fill: string): SVGElement {
  const box = svg("rect", { width: "100%", height: "100%", fill });
  return svg("svg", { class: "swatch", "aria-hidden": "true" }, box);
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

/** Only with what occurs: hatched boxes stand for what a list may have left out. */
export function changeLegend(profile: Profile): HTMLElement {
  const uncertain = profile.doc.groups.filter((group) => group.status === "unknown");
  const occurs = new Map([
    [kMaybeNew, uncertain.some((group) => group.total >= group.before!.total)],
    [kMaybeGone, uncertain.some((group) => group.total < group.before!.total)],
  ]);
  const list = el("ul", { class: "legend", "aria-label": "Colours of changes" });
  for (const [fill, text] of kChangeKey) {
    if (occurs.get(fill) !== false) list.append(el("li", {}, swatch(fill), text));
  }
  list.append(el("li", {}, el("small", {}, "A box is as wide as the larger of before and now.")));
  return list;
}

/** What hatched fills refer to; stands in the page once. */
export function hatches(): SVGElement {
  const hatch = (fill: string, back: string, line: string) =>
    svg(
      "pattern",
      {
        ...{ id: fill.slice("url(#".length, -1), width: 8, height: 8 },
        ...{ patternUnits: "userSpaceOnUse", patternTransform: "rotate(45)" },
      },
      svg("rect", { width: 8, height: 8, fill: back }),
      svg("rect", { width: 3, height: 8, fill: line }),
    );
  return svg(
    "svg",
    { class: "hatches", width: 0, height: 0, "aria-hidden": "true" },
    hatch(kMaybeNew, "hsl(14 40% 90%)", "hsl(14 75% 76%)"),
    hatch(kMaybeGone, "hsl(212 40% 90%)", "hsl(212 65% 76%)"),
  );
}
