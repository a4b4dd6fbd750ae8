// SPDX-License-Identifier: Apache-2.0
// Short forms of function names for rows and boxes. No DOM here.

const kOperator = /^operator(<=>|<<=?|<=?|>>=?|>=?|->\*?|\(\))/;
const kKept = /^\(anonymous namespace\)|^\{lambda\(/;
/** Parts joined by "::" or ".": identifiers, "{lambda#1}", "(anonymous namespace)"; then an operator. */
const kPart = String.raw`(?:~?[\p{L}\p{N}_$@]+(?:\[abi:\w+\])*|\(anonymous namespace\)|\{+[^{}]*\}+|'[^']*')`;
const kPath = new RegExp(String.raw`^(?:${kPart}(?:::|\.))*(?:${kPart}|operator\W.*)$`, "u");

/**
 * A demangled name without its parameters and template arguments: "a::B<C>::f(int) const" becomes
 * "a::B::f". Names of lambdas, operators and anonymous namespaces keep what tells them apart. Any
 * name that does not read as such a path is returned unchanged: those of other languages.
 */
export function shortName(name: string): string {
  if (!/[<( ]/.test(name) || /^(<|[-+]\[|\(cut at )/.test(name)) return name;
  const clone = name.indexOf(" [clone");
  const text = clone > 0 ? name.slice(0, clone) : name;
  let short = "";
  let depth = 0; // of brackets that are left out
  let hasParameters = false;
  for (let at = 0; at < text.length; ++at) {
    const rest = text.slice(at, at + 24);
    const operator = depth === 0 && kOperator.exec(rest);
    const kept = depth === 0 && kKept.exec(rest);
    if (operator && (at === 0 || !/[\w$]/.test(text[at - 1]!))) {
      short += operator[0];
      at += operator[0].length - 1;
    } else if (kept) {
      // A no-break space: the name does not end here.
      short += kept[0].startsWith("(") ? "(anonymous\u00a0namespace)" : "{lambda";
      at += kept[0].length - (kept[0].startsWith("(") ? 1 : 2);
    } else if (text[at] === "<" || text[at] === "(") {
      if (depth === 0 && /(^|[. ])$/.test(short) && !/operator\S* $/.test(short)) return name;
      if (depth === 0 && text[at] === "(") hasParameters = true;
      ++depth;
    } else if (text[at] === ">" || text[at] === ")") {
      if (depth === 0) return name;
      --depth;
    } else if (depth === 0) {
      short += text[at];
    }
  }
  short = short.replace(/ (const|volatile|&&?|requires .*)(?= |$)/g, "").trim();
  // A template's name starts with its return type, which ends at the last blank.
  const operator = short.search(/\boperator\b/);
  if (hasParameters) short = short.slice(short.lastIndexOf(" ", operator < 0 ? Infinity : operator) + 1);
  short = short.replaceAll("\u00a0", " ");
  return depth === 0 && kPath.test(short) ? short : name;
}

export function cutText(text: string, limit: number): string {
  return text.length <= limit ? text : text.slice(0, limit) + "…";
}
