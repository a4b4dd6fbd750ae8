// SPDX-License-Identifier: Apache-2.0
// Runs the page in Chromium: loads, zooms, searches, sorts, opens rows. `memleak html` writes the
// pages. Run by ctest:
//   node page_test.js MEMLEAK NODE_MODULES WORK_DIRECTORY
//   node page_test.js MEMLEAK NODE_MODULES WORK_DIRECTORY --picture FILE
// The second form only takes the picture for the README.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdirSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join, resolve } from "node:path";
import { pathToFileURL } from "node:url";
import { hostile, kHostileNames, large, line, report, server } from "./documents.js";

const [memleak, modules, work, option, picture] = process.argv.slice(2);
const { chromium } = createRequire(join(resolve(modules), "here.js"))("playwright-core");

/** Writes the page of a document. */
function write(name, document) {
  const [json, html] = [join(work, `${name}.json`), join(work, `${name}.html`)];
  writeFileSync(json, JSON.stringify(document));
  execFileSync(memleak, ["html", json, "-o", html]);
  return html;
}

/** Opens a page. Collects console messages and network requests as complaints. */
async function open(browser, html, settings = {}) {
  const page = await browser.newPage({ viewport: { width: 1280, height: 900 }, ...settings });
  page.complaints = [];
  page.on("console", (message) => page.complaints.push(message.text()));
  page.on("pageerror", (error) => page.complaints.push(String(error)));
  page.on("request", (request) => {
    if (!/^(file|data):/.test(request.url())) page.complaints.push(request.url());
  });
  await page.goto(pathToFileURL(resolve(html)).href);
  await page.waitForSelector("#flame g.frame");
  return page;
}

async function close(page) {
  assert.deepEqual(page.complaints, []);
  assert.equal(await page.evaluate(() => window.hacked), undefined);
  await page.close();
}

const count = (number) => number.toLocaleString("en-US");
const frames = (page) => page.locator("#flame g.frame");
const named = (page, part) => page.locator(`#flame g.frame[name*="${part}"]`).first();
const rows = (page) => page.locator("#groups tr.group");
const column = (page, key) => page.locator(`#groups tr.group td.${key}`).allInnerTexts();
const sortOn = (page, key) => page.click(`#groups [data-sort=${key}]`);
/** Waits for a search result: the search starts after a pause in typing. */
const awaitFound = (page, source) =>
  page.waitForFunction((s) => new RegExp(s).test(document.getElementById("found").textContent), source);

async function showsFigures(browser) {
  const document = server();
  const page = await open(browser, write("server", document));
  const { totals } = document;
  const origin = await page.innerText(".origin");
  for (const part of ["server.json", "10 frames", "complete", "no damaged lines"]) {
    assert.ok(origin.includes(part), part);
  }
  assert.match(await page.innerText("header"), /1 file could not be read/);
  const details = async () => {
    await named(page, "Cache::Insert").hover();
    return page.innerText("#flame-details");
  };
  const share = ((100 * 512 * 24000) / totals.listedBytes).toFixed(1);
  assert.ok((await details()).includes(`${share} %`));
  await page.mouse.move(0, 0);
  await page.getByLabel("Width by").selectOption("count");
  assert.ok((await details()).includes("24,000 blocks"));
  await close(page);
}

const run = (...args) => execFileSync(memleak, args, { encoding: "utf8" });

function file(name, text) {
  const path = join(work, name);
  writeFileSync(path, text);
  return path;
}

/** Checks that the head has the figures of the totals, and of `base` if given. */
async function agreesInTotals(page, totals, base) {
  for (const [name, key] of [
    ...[["total", "bytes"], ["listed", "listedBytes"]],
    ...[["unlisted", "unlistedBytes"], ["java", "javaBytes"]],
  ]) {
    const figure = page.locator(`[data-figure=${name}]`);
    assert.ok((await figure.innerText()).includes(`\n${count(totals[key])} bytes`), name);
    if (!base) continue;
    assert.equal(await figure.locator("small").getAttribute("title"), `${count(base[key])} bytes`);
  }
}

/** A report of the tracker: the page and `show` have the same figures. */
async function agreesWithShow(browser) {
  const ages = [9, 2, 1, 0];
  const text = report([line("one", 48, 1000, ages), line("two", 4096, 4, ages)]);
  const [source, html] = [file("allocations_dump", text), join(work, "report.html")];
  run("html", source, "-o", html);
  const { totals, groups, frames: all } = JSON.parse(run("export", source, "--format", "json"));
  assert.equal(groups.length, 3);
  const page = await open(browser, html);
  await agreesInTotals(page, totals);
  const sorted = [...groups].sort((a, b) => b.total - a.total);
  assert.deepEqual(await column(page, "count"), sorted.map((group) => count(group.count)));
  // Four ages of a thousand blocks may belong to other blocks.
  assert.deepEqual(await column(page, "pattern"), ["perhaps growing", "growing", "–"]);
  assert.deepEqual(await column(page, "age"), ["about 0s–9s", "0s–9s", "–"]);
  assert.match(run("show", source), /48 B .*about 0s..9s  perhaps g[^]*4.0 KiB  age 0s..9s  growing\n/);
  for (const [at, group] of sorted.entries()) {
    await rows(page).nth(at).locator(".toggle").click();
    const names = await page.locator("#groups tr.detail").nth(at).locator("li code").allInnerTexts();
    assert.deepEqual(names, group.stack.map((index) => all[index].name));
  }
  await close(page);
}

/** Two reports that omit groups: the page and `diff` have the same figures. */
async function agreesWithDiff(browser) {
  const same = line("two", 4096, 3);
  const old = file("old", report([same, line("three", 100, 5), line("one", 48, 10)], 3));
  const now = file("new", report([line("one", 48, 1000), same, line("four", 100, 6)], 4));
  const html = join(work, "grown.html");
  run("html", now, "--diff", old, "-o", html);
  const { totals, base, groups } = JSON.parse(run("diff", old, now, "--json"));
  const page = await open(browser, html);
  await agreesInTotals(page, totals, base.totals);
  const figure = (name) => page.innerText(`[data-figure=${name}]`);
  assert.ok((await figure("grew")).endsWith(`\n+${count(990 * 48)} bytes\n1 group`));
  assert.ok((await figure("shrank")).endsWith("\n0 bytes\n0 groups"));
  assert.ok((await figure("unknown")).endsWith("\n1,100 bytes\n2 groups"));
  const cells = async (key) => (await column(page, key)).join(", ");
  assert.equal(await cells("status"), "grew, same, same, unknown, unknown");
  assert.equal(await cells("growth"), "+46.4 KiB, 0 B, 0 B, –, –");
  assert.deepEqual(groups.filter((g) => g.status === "unknown").map((g) => g.before.total), [0, 500]);
  assert.match(await page.innerText(".row-count"), /change: \+46\.4 KiB, without 2 groups not judged$/);
  assert.match(run("diff", old, now), /^Not judged: 2 groups, 500 B -> 600 B/m);
  await named(page, "three.so").hover();
  assert.match(await page.innerText("#flame-details"), / — 1 group not judged, /);
  await close(page);
}

async function zoomsAndSearches(browser) {
  const page = await open(browser, join(work, "server.html"));
  const width = async (part) => (await named(page, part).locator("rect").boundingBox()).width;
  const whole = await width("main");
  const before = await width("codec::Decode");
  assert.ok(before < whole / 2);
  await named(page, "codec::Decode").click();
  assert.ok((await width("codec::Decode")) > whole * 0.98);
  assert.equal(await rows(page).count(), 2, "the table follows the zoom");
  await page.click("#reset");
  assert.equal(await rows(page).count(), 6);
  assert.ok(Math.abs((await width("codec::Decode")) - before) < 2);

  await page.keyboard.press("/");
  await page.keyboard.type("cache::insert");
  await awaitFound(page, "^1 found, in stacks that hold 11\\.9 MiB \\(2 groups\\)");
  const colour = (part) => named(page, part).locator("rect").getAttribute("fill");
  assert.notEqual(await colour("Cache::Insert"), await colour("Session::Open"));
  await page.keyboard.press("Escape");
  await awaitFound(page, "^$");

  // The other direction, by keyboard: two frames up from the root, in, and out again.
  await page.getByLabel("Start at").selectOption("allocation");
  assert.equal(await width("malloc"), whole);
  await page.focus("#flame");
  for (const key of ["ArrowDown", "ArrowDown", "ArrowRight", "Enter"]) await page.keyboard.press(key);
  const path = await page.innerText("#zoom-path");
  assert.match(path, /^Zoomed to codec::Tables::Grow/);
  for (const key of ["Escape", "Escape"]) await page.keyboard.press(key);
  assert.equal(await page.innerText("#zoom-path"), "");
  await page.getByLabel("upside down").check();
  const top = async (part) => (await named(page, part).boundingBox()).y;
  assert.ok((await top("all")) > (await top("malloc")));
  await close(page);
}

async function sortsFiltersAndOpens(browser) {
  const page = await open(browser, join(work, "server.html"));
  const { groups } = server();
  const by = (key) => [...groups].sort((a, b) => b[key] - a[key]).map((group) => count(group[key]));
  await sortOn(page, "count");
  assert.deepEqual(await column(page, "count"), by("count"));
  await sortOn(page, "count");
  assert.deepEqual(await column(page, "count"), by("count").reverse());

  await page.fill("#filter", "tables.cpp");
  await page.waitForFunction(() => document.querySelectorAll("#groups tr.group").length === 1);
  await page.locator("#groups .toggle").focus();
  await page.keyboard.press("Enter");
  const detail = page.locator("#groups tr.detail");
  assert.match(await detail.innerText(), /codec::Tables::Grow\(unsigned long\)\s+src\/tables\.cpp:19/);
  assert.equal(await detail.locator("li").count(), 6);
  assert.equal(await detail.locator(".ages i").count(), 24);
  await page.keyboard.press("Enter");
  assert.equal(await detail.count(), 0);
  await close(page);
}

async function showsHostileNamesAsText(browser) {
  const page = await open(browser, write("hostile", hostile()));
  await sortOn(page, "total");
  await sortOn(page, "total"); // largest first again
  for (const at of kHostileNames.keys()) await rows(page).nth(at).locator(".toggle").click();
  const shown = await page.locator("#groups li:first-child code").allTextContents();
  kHostileNames.slice(0, 3).forEach((name, at) => assert.equal(shown[at], name));
  const long = page.locator("#groups li:first-child code").nth(3);
  assert.match(shown[3], /… all 10,000 characters$/);
  await long.locator("button").click();
  assert.ok((await long.textContent()).startsWith(kHostileNames[3]));
  assert.ok((await page.innerText(".legend")).includes("(nameless) in stacks of"));
  assert.equal(await page.locator("#groups img, #groups b, #flame img, body > script").count(), 0);
  await close(page);
}

/** Two reports that list all groups, in the dark. */
async function showsDifferences(browser) {
  const old = file("old", report([line("two", 4096, 3), line("three", 100, 5), line("one", 48, 10)]));
  const now = file("new", report([line("one", 48, 1000), line("two", 4096, 1), line("four", 100, 6)]));
  const html = join(work, "changed.html");
  run("html", now, "--diff", old, "-o", html);
  const page = await open(browser, html, { colorScheme: "dark" });
  assert.deepEqual(await column(page, "status"), ["grew", "new", "same", "gone", "shrank"]);
  assert.deepEqual((await column(page, "growth")).slice(3), ["−500 B", "−8.0 KiB"]);
  await page.getByLabel("Status").selectOption("gone");
  assert.equal(await rows(page).count(), 1);
  await close(page);
}

/** The number of elements does not depend on the size of the report. */
async function holdsFewElements(browser) {
  const document = large(20000, 48, 30000);
  const page = await open(browser, write("large", document));
  const check = async () => {
    const elements = await page.evaluate(() => document.querySelectorAll("*").length);
    assert.ok(elements < 8000, `${elements} elements`);
  };
  await check();
  const box = frames(page).nth(Math.min(40, (await frames(page).count()) - 1));
  await box.dispatchEvent("click");
  await page.click("#reset");
  await page.fill("#search", "method_1");
  await awaitFound(page, " found, ");
  await page.getByLabel("Start at").selectOption("allocation");
  await check();
  await sortOn(page, "count");
  await page.click("text=Last");
  await rows(page).first().locator(".toggle").click();
  await check();
  const total = document.groups.reduce((sum, group) => sum + group.total, 0);
  assert.ok((await page.innerText(".row-count")).includes(`${count(total)} bytes`));
  await close(page);
}

async function main() {
  mkdirSync(work, { recursive: true });
  const browser = await chromium.launch({
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-dev-shm-usage"],
  });
  try {
    if (option === "--picture") {
      const page = await open(browser, write("picture", server()));
      await rows(page).first().locator(".toggle").click();
      await page.setViewportSize({ width: 1280, height: 1080 });
      await page.screenshot({ path: picture });
      return;
    }
    const tests = [
      ...[showsFigures, agreesWithShow, agreesWithDiff, zoomsAndSearches, sortsFiltersAndOpens],
      ...[showsHostileNamesAsText, showsDifferences, holdsFewElements],
    ];
    for (const test of tests) {
      await test(browser);
      console.log(`ok ${test.name}`);
    }
  } finally {
    await browser.close();
  }
}

await main();
