// SPDX-License-Identifier: Apache-2.0
// Checks the figures of the page against the program's own output and against slow sums over the
// document; then the flame graph, the search, the URL, hostile names and differences.

import assert from "node:assert/strict";
import { close, column, count, file, inWork, open, rows, run, runTests, search, show, write } from "./browser.js";
import { hostile, kHostileNames, large, line, report, server } from "./documents.js";

const details = (page) => page.innerText(".flame-details");
const path = (page) => page.evaluate(() => location.hash);

/** "1.5 KiB", as the page and the program print it. */
function bytes(number) {
  let [value, unit] = [number, 0];
  for (; value >= 1024; ++unit) value /= 1024;
  return `${unit === 0 ? value : value.toFixed(1)} ${["B", "KiB", "MiB", "GiB"][unit]}`;
}

/** A report of the tracker: the page and `show` have the same figures, in the same order. */
async function agreesWithShow(browser) {
  const ages = [9, 2, 1, 0];
  const source = file("allocations_dump", report([line("one", 48, 1000, ages), line("two", 4096, 4, ages)]));
  run("html", source, "-o", inWork("report.html"));
  const { totals, groups, frames } = JSON.parse(run("export", source, "--format", "json"));
  const page = await open(browser, inWork("report.html"), "#tab=stacks");
  const head = await page.innerText("header");
  for (const text of [`${count(totals.bytes)} bytes`, `${count(totals.blocks)} blocks`, `${totals.groups} stacks`]) {
    assert.ok(head.includes(text), text);
  }
  const printed = run("show", source).matchAll(/^[#J]\d+ +(\S+ \S+)/gm);
  assert.deepEqual(await column(page, "total"), [...printed].map(([, total]) => total));
  const sorted = [...groups].sort((a, b) => b.total - a.total);
  assert.deepEqual(await column(page, "count"), sorted.map((group) => count(group.count)));
  // Four ages of a thousand blocks may belong to other blocks.
  const shownAges = (await column(page, "age")).map((text) => text.trim());
  assert.deepEqual(shownAges, ["about 0s–9s perhaps growing", "0s–9s growing", "–"]);
  for (const [at, group] of sorted.entries()) {
    await rows(page).nth(at).locator(".toggle").click();
    const names = await page.locator("tr.detail").nth(at).locator("li code").allInnerTexts();
    assert.deepEqual(names, group.stack.map((index) => frames[index].name));
  }
  await close(page);
}

/** Sums of functions, their callers and callees, against slow sums over random stacks. */
async function sumsUpFunctions(browser) {
  const { groups, frames } = large(400, 12, 60);
  const page = await open(browser, write("random", large(400, 12, 60)));
  const names = groups.map(({ stack }) => stack.map((at) => frames[at].name));
  const total = (wanted) => groups.reduce((sum, group, at) => sum + (wanted(names[at], group) ? group.total : 0), 0);
  const shown = await rows(page).locator("td.where code").evaluateAll((all) => all.map(({ title }) => title));
  assert.ok(shown.length > 30);
  const selfs = shown.map((name) => total((stack) => stack[0] === name));
  assert.deepEqual(await column(page, "self"), selfs.map(bytes));
  assert.deepEqual(selfs, [...selfs].sort((a, b) => b - a));
  assert.deepEqual(await column(page, "total"), shown.map((name) => bytes(total((stack) => stack.includes(name)))));
  for (const name of shown.slice(0, 5)) {
    await rows(page).locator(`code[title="${name}"]`).click();
    for (const [side, step] of [["Callers", 1], ["Callees", -1]]) {
      // From the outermost call: an inner one of the same stack is part of it.
      const sums = new Map();
      groups.forEach((group, at) => {
        const other = names[at].includes(name) ? names[at][names[at].lastIndexOf(name) + step] : undefined;
        if (other) sums.set(other, (sums.get(other) ?? 0) + group.total);
      });
      const list = page.locator(".side", { hasText: side });
      while (await list.getByText(/ more$/).count()) await list.getByText(/ more$/).click();
      const got = await list.locator(".call").evaluateAll((all) =>
        all.map((call) => [call.querySelector(".link").title, call.querySelector(".figures span").textContent]),
      );
      assert.equal(got.length, sums.size);
      for (const [other, text] of got) assert.equal(text, bytes(sums.get(other)), other);
    }
  }
  await close(page);
}

async function zoomsAndSearches(browser) {
  const page = await open(browser, write("server", server()));
  await show(page, "flame");
  const chart = page.locator(".flame:visible");
  const place = () => page.locator(".flame:visible canvas").boundingBox();
  const before = await place();
  await page.keyboard.press("/");
  await page.keyboard.type("cache::insert");
  await page.waitForFunction(() => /^1 found, on 2 stacks that hold 11\.9 MiB /.test(document.getElementById("found").textContent));
  assert.deepEqual(await place(), before, "the search does not move the chart");
  assert.ok(await page.locator(".legend:visible li").count());

  // By keyboard: down to the widest callee of main, and into it. All tabs follow the URL.
  await chart.focus();
  for (const key of ["ArrowDown", "ArrowDown", "ArrowDown", "Enter"]) await page.keyboard.press(key);
  assert.match(await details(page), /server::Handle\(Request&\) in server$/);
  const zoomed = await path(page);
  assert.match(zoomed, /^#tab=flame&q=cache%3A%3Ainsert&zoom=[\d.]+$/);
  await page.reload();
  assert.match(await details(page), /server::Handle/);
  assert.equal(await page.inputValue("#search"), "cache::insert");
  await page.click("text=Reset zoom");
  assert.match(await details(page), / MiB, 100\.0 % all$/);
  await page.goBack();
  assert.equal(await path(page), zoomed);
  await show(page, "stacks");
  assert.equal(await rows(page).count(), 2);

  // A click in the other direction: the bottom boxes are the start of the program.
  await page.locator("#search").press("Escape");
  await show(page, "flame");
  await page.click("text=Reset zoom");
  await page.getByLabel("Start at").selectOption("allocation");
  await page.mouse.click((await place()).x + 20, (await place()).y + 30);
  assert.match(await details(page), /^[\d.]+ MiB, \d+\.\d % store::Cache::Insert.* in libstore/);
  // Unresolved frames and the missing frames of cut stacks.
  await page.getByLabel("Start at").selectOption("callers");
  const named = async () => {
    await chart.focus();
    const found = [];
    for (const key of ["Home", "ArrowDown", ...Array(9).fill("ArrowRight")]) {
      await page.keyboard.press(key);
      found.push(await details(page));
    }
    return found.join("\n");
  };
  assert.match(await named(), /\(cut at 10 frames\)/);
  await search(page, "libgone");
  await show(page, "stacks");
  assert.match((await column(page, "where"))[0], /libgone\.so\+0x1000/);
  await page.locator("[role=tabpanel]:visible").getByLabel("hide unresolved frames").check();
  assert.doesNotMatch((await column(page, "where"))[0], /libgone\.so\+0x1000/);
  await close(page);
}

/** A pattern in a link waits for Enter. An invalid one is not "0 found". */
async function searchesPatterns(browser) {
  const page = await open(browser, inWork("random.html"), `#q=${encodeURIComponent("/(.*.*.*.*.*.*.*.*)*\\d$x/")}`);
  assert.equal(await page.innerText("#found"), "Press Enter to search");
  await page.fill("#search", "/method_1(/");
  await page.press("#search", "Enter");
  assert.match(await page.innerText("#found"), /^Not a valid pattern: ./);
  const first = page.locator("td.where code").first();
  await page.fill("#search", "");
  const name = await first.getAttribute("title");
  await page.fill("#search", `/${name.replaceAll(/\W/g, ".")}/`);
  await page.press("#search", "Enter");
  assert.match(await page.innerText("#found"), /^1 found, /);
  await first.click();
  await page.click("text=Its stacks");
  assert.match(await page.innerText("#found"), /^1 found, /);
  await close(page);
}

async function showsHostileNamesAsText(browser) {
  const page = await open(browser, write("hostile", hostile()), "#tab=stacks");
  for (const at of kHostileNames.keys()) await rows(page).nth(at).locator(".toggle").click();
  const shown = await page.locator(".stack li:first-child > code").allTextContents();
  kHostileNames.slice(0, 3).forEach((name, at) => assert.equal(shown[at], name.replace("\u2028", "\\u{2028}")));
  const long = page.locator(".stack li:first-child > code").nth(3);
  assert.match(shown[3], /… all 10,000 characters$/);
  await long.locator("button").click();
  assert.ok((await long.textContent()).startsWith(kHostileNames[3]));
  for (const tab of ["flame", "libraries", "growth", "functions"]) await show(page, tab);
  // A long chain of single callees opens at once.
  await search(page, "=deep1");
  await rows(page).first().click();
  await page.locator(".side", { hasText: "Callees" }).locator(".toggle").first().click();
  assert.equal(await page.locator(".calls .call:visible").count(), 998 + 1);
  assert.equal(await page.locator("main img, #stacks b, body > script").count(), 0);
  await close(page);
}

/** Short names keep what identifies a function, also in names of other languages. */
async function shortensNames(browser) {
  const names = {
    "a::B<C>::f(int) const": "a::B::f",
    "std::vector<int> (anonymous namespace)::g<int>(int) [clone .cold]": "(anonymous namespace)::g",
    "f(int)::{lambda(int)#1}::operator()(int) const": "f::{lambda#1}::operator()",
    "std::ostream& std::operator<< <char>(std::ostream&, char const*)": "std::operator<<",
    ...Object.fromEntries(
      [
        ...["com.example.Foo.<init>", "JS:*resolve node:path:1091:10", "net/http.(*conn).serve", "-[NSString initWith:]"],
        ...["<alloc::vec::Vec<T> as X<T>>::extend", "void (*signal(int, void (*)(int)))(int)", "vtable for A<int>"],
      ].map((name) => [name, name]),
    ),
  };
  const document = hostile();
  document.frames = Object.keys(names).map((name) => ({ ...document.frames[0], name, function: name }));
  document.groups = document.frames.map((_, at) => ({ ...document.groups[0], stack: [at] }));
  const page = await open(browser, write("names", document));
  const shown = await rows(page).locator("td.where code").evaluateAll((all) => all.map((code) => [code.title, code.textContent]));
  assert.deepEqual(Object.fromEntries(shown), names);
  await close(page);
}

/** Two reports that omit groups: the page and `diff` have the same figures. */
async function agreesWithDiff(browser) {
  const same = line("two", 4096, 3);
  const old = file("old", report([same, line("three", 100, 5), line("one", 48, 10)], 3));
  const now = file("new", report([line("one", 48, 1000), same, line("four", 100, 6)], 4));
  const [html, json] = [inWork("grown.html"), file("grown.json", run("diff", old, now, "--json"))];
  for (const source of [[now, "--diff", old], [json]]) {
    run("html", ...source, "-o", html);
    const page = await open(browser, html, "#tab=growth");
    assert.match(await page.innerText("header"), /does not list 4 smaller stacks of 800 B/);
    const figure = (name) => page.innerText(`[data-figure=${name}]`);
    assert.ok((await figure("grew")).endsWith(`\n+${count(990 * 48)} bytes, 1 stack`));
    assert.ok((await figure("shrank")).endsWith("\n0 bytes, 0 stacks"));
    assert.ok((await figure("unknown")).endsWith("\n1,100 bytes, 2 stacks"));
    assert.deepEqual(await column(page, "status"), ["grew", "unknown", "unknown"]);
    assert.deepEqual(await column(page, "growth"), ["+46.4 KiB", "–", "–"]);
    assert.match(await page.innerText(".row-count"), /change: \+46\.4 KiB, without 2 stacks not judged$/);
    await close(page);
  }
  assert.match(run("diff", old, now), /^Not judged: 2 stacks, 500 B -> 600 B/m);
}

/** The reason for no stacks is that of `show`. A difference of two programs names both. */
async function tellsWhatIsUnusual(browser) {
  const empty = server();
  Object.assign(empty, { groups: [], frames: [], totals: { ...empty.totals, bytes: 0, groups: 0, listedBytes: 0, listedGroups: 0 } });
  Object.assign(empty.report.process, { program: "/opt/bin/client", arguments: ["client"], pid: 12, kinds: [], since: 0 });
  let page = await open(browser, write("empty", empty));
  const reason = await page.textContent("header .reason");
  assert.ok(reason !== "" && run("show", inWork("empty.json")).includes(reason), reason);
  assert.match(await page.innerText("main"), /Nothing is listed\./);
  await close(page);
  const changed = run("diff", inWork("empty.json"), inWork("server.json"));
  assert.match(changed, /client \(pid 12 [^]*server \(pid 4711 /);
  run("html", inWork("server.json"), "--diff", inWork("empty.json"), "-o", inWork("two.html"));
  page = await open(browser, inWork("two.html"));
  assert.match(await page.innerText("header"), /^server holds .* compared with client\)[^]*before: 0 B .*client, pid 12 [^]* two programs: client and server\./);
  await close(page);
}

await runTests([agreesWithShow, sumsUpFunctions, zoomsAndSearches, searchesPatterns, showsHostileNamesAsText, shortensNames, agreesWithDiff, tellsWhatIsUnusual]);
