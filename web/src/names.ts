// SPDX-License-Identifier: Apache-2.0
// Short forms of function names for rows and boxes. No DOM here.

/**
 * A demangled name without its parameters and template arguments: "a::B<C>::f(int) const" becomes
 * "a::B::f". Names of lambdas, operators and anonymous namespaces keep what tells them apart.
 */
export function shortName(name: string): string {
  if (!/[<( ]/.test(name) || name.startsWith("(cut at ")) return name;
  let text = name;
  const clone = text.indexOf(" [clone");
  if (clone > 0) text = text.slice(0, clone);
  let short = "";
  let depth = 0; // of brackets that are left out
  for (let at = 0; at < text.length; ++at) {
    const rest = text.slice(at, at + 24);
    const operator = depth === 0 && /^operator(<=>|<<=?|<=?|>>=?|>=?|->\*?|\(\))/.exec(rest);
    const kept = depth === 0 && /^\(anonymous namespace\)|^\{lambda\(/.exec(rest);
    if (operator && (at === 0 || !/[\w$]/.test(text[at - 1]!))) {
      short += operator[0];
      at += operator[0].length - 1;
    } else if (kept) {
      const text_ = kept[0].startsWith("(") ? kept[0] : "{lambda";
      short += text_;
      at += text_.length - 1;
    } else if (text[at] === "<" || text[at] === "(") {
      ++depth;
    } else if (text[at] === ">" || text[at] === ")") {
      if (depth === 0) return name;
      --depth;
    } else if (depth === 0) {
      short += text[at];
    }
  }
  short = short.replace(/ (const|volatile|&&?)(?= |$)/g, "").trim();
  // A template's name starts with its return type. It ends at the last blank.
  const blank = short.lastIndexOf(" ");
  if (blank > 0 && !/operator/.test(short) && !/[({]/.test(short)) short = short.slice(blank + 1);
  return depth === 0 && short !== "" && short !== "::" ? short : name;
}

export function cutText(text: string, limit: number): string {
  return text.length <= limit ? text : text.slice(0, limit) + "…";
}
