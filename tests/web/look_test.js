// SPDX-License-Identifier: Apache-2.0
// Looks at each tab: takes pictures, light and wide or dark and narrow, runs axe-core, walks with the
// keyboard, prints, and measures a large report. The pictures are in the work directory.

import assert from "node:assert/strict";
import { readFileSync, rmSync } from "node:fs";
import { close, file, inWork, open, packages, rows, run, runTests, show, start, write } from "./browser.js";
import { large, line, report, server } from "./documents.js";

const kTabs = ["functions", "flame", "stacks", "libraries", "growth"];
const kLooks = { server: [["light", 1400], ["dark", 420]], changed: [["dark", 420], ["light", 1000]], watched: [["light", 1400]] };
const kAxe = readFileSync(packages.resolve("axe-core/axe.min.js"), "utf8");

/** A page of `memleak watch`: node grows and is watched for some seconds. */
async function watched() {
  const [root, out] = [inWork("watched"), inWork("reports")];
  for (const folder of [root, out]) rmSync(folder, { recursive: true, force: true });
  const grow = "const kept = []; setInterval(() => kept.push(Buffer.allocUnsafeSlow(9000)), 10)";
  const program = start("run", "--root", root, "--", process.execPath, "-e", grow);
  try {
    for (let tries = 0; ; ++tries) {
      try {
        run("status", String(program.pid));
        break;
      } catch (error) {
        if (tries === 300) throw error; // else it has not started yet
        await new Promise((done) => setTimeout(done, 100));
      }
    }
    run("watch", String(program.pid), "--every", "1s", "--for", "4s", "-o", out);
  } finally {
    program.kill("SIGKILL");
  }
  return inWork("reports/leak.html");
}

async function pages() {
  const old = file("then", report([line("two", 4096, 3), line("three", 100, 5), line("one", 48, 10)]));
  const now = file("now", report([line("one", 48, 1000), line("two", 4096, 1), line("four", 100, 6)]));
  run("html", now, "--diff", old, "-o", inWork("changed.html"));
  return { server: write("server", server()), changed: inWork("changed.html"), watched: await watched() };
}

const kPages = await pages();

/** Each tab of a profile, of a difference and of several reports. Nothing is wider than the screen. */
async function looksRight(browser) {
  for (const [name, html] of Object.entries(kPages)) {
    for (const [colorScheme, width] of kLooks[name]) {
      const page = await open(browser, html, "", { colorScheme, viewport: { width, height: 900 } });
      await page.evaluate(kAxe);
      for (const tab of name === "server" ? kTabs : ["growth"]) {
        await show(page, tab);
        if (tab === "functions") await rows(page).nth(1).click();
        if (tab === "stacks") await rows(page).first().locator(".toggle").click();
        await page.screenshot({ path: inWork(`${name}-${tab}-${colorScheme}-${width}.png`) });
        const { violations } = await page.evaluate(() => axe.run({ resultTypes: ["violations"] }));
        const serious = violations.filter(({ impact }) => impact === "serious" || impact === "critical");
        assert.deepEqual(serious.map(({ id, nodes }) => [tab, id, nodes[0].html]), []);
        assert.equal(await page.evaluate(() => document.documentElement.scrollWidth), width, `${tab} fits`);
      }
      await close(page);
    }
  }
}

/** Each control is reached by Tab, shows its focus and does its work by keyboard. */
async function worksByKeyboard(browser) {
  const page = await open(browser, kPages.server);
  const focused = () => page.evaluate(() => document.activeElement.outerHTML.slice(0, 200));
  const tabTo = async (part) => {
    for (let step = 0; step < 60; ++step) {
      if ((await focused()).includes(part)) return;
      await page.keyboard.press("Tab");
      const style = await page.evaluate(() => getComputedStyle(document.activeElement).outlineStyle);
      assert.notEqual(style, "none", await focused());
    }
    assert.fail(`no way to ${part}`);
  };
  await tabTo("tab-functions");
  for (const tab of kTabs.slice(1)) {
    await page.keyboard.press("ArrowRight");
    assert.ok((await focused()).includes(`tab-${tab}`));
    assert.ok(await page.locator(`#panel-${tab}`).isVisible());
  }
  await page.keyboard.press("ArrowRight"); // around to the functions
  await tabTo('id="search"');
  await tabTo('data-sort="total"');
  await page.keyboard.press("Enter");
  assert.equal(await page.getAttribute("th.total", "aria-sort"), "descending");
  await tabTo('aria-label="Callers and callees of server::Handle"');
  await page.keyboard.press("Enter");
  await tabTo('aria-label="Next level of server::Loop"');
  await page.keyboard.press("Enter");
  assert.ok(await page.locator(".calls .calls").first().isVisible());
  await close(page);
}

async function prints(browser) {
  const page = await open(browser, kPages.server, "#tab=stacks", { colorScheme: "dark" });
  await page.emulateMedia({ media: "print", colorScheme: "dark" });
  await page.evaluate(() => window.dispatchEvent(new Event("beforeprint")));
  for (const [part, visible] of [["h1", true], ["#functions", true], ["#panel-flame canvas", true], ["#stacks", false], ["nav.bar", false]]) {
    assert.equal(await page.locator(part).isVisible(), visible, part);
  }
  assert.ok((await page.locator("#panel-flame canvas").boundingBox()).height > 100);
  await page.screenshot({ path: inWork("print.png") });
  await page.evaluate(() => window.dispatchEvent(new Event("afterprint")));
  await close(page);
}

/** The times are printed. The number of elements does not depend on the size of the report. */
async function holdsLargeReports(browser) {
  const kStacks = 100000;
  const html = write("large", large(kStacks, 32, 30000));
  for (const tab of kTabs.slice(0, 4)) {
    const large = await open(browser, html, `#tab=${tab}`);
    const opened = await large.evaluate(() => new Promise((done) => requestAnimationFrame(() => setTimeout(() => done(performance.now())))));
    const searched = await large.evaluate(async () => {
      const input = document.getElementById("search");
      input.value = "method_12";
      const begin = performance.now();
      input.dispatchEvent(new Event("change"));
      document.body.offsetHeight; // with layout
      return performance.now() - begin;
    });
    assert.match(await large.innerText("#found"), / found, on /);
    const elements = await large.evaluate(() => document.querySelectorAll("*").length);
    console.log(`${kStacks} stacks, ${tab}: open ${opened.toFixed(0)} ms, search ${searched.toFixed(0)} ms, ${elements} elements`);
    assert.ok(elements < 2500, `${elements} elements`);
    if (tab === "flame") await opensGathered(large);
    await close(large);
  }
}

/** Boxes that are too small are one box, at the right of its level. A click shows them. */
async function opensGathered(page) {
  const { x, y, width, height } = await page.locator(".flame canvas").boundingBox();
  const details = () => page.innerText(".flame-details");
  let level = y + 10;
  while (!/ smaller$/.test(await details())) {
    assert.ok((level += 20) < y + height, "boxes are gathered");
    await page.mouse.move(x + width - 2, level);
  }
  const before = await details();
  await page.mouse.click(x + width - 2, level);
  await page.mouse.move(0, 0);
  assert.equal(await details(), before);
}

await runTests([looksRight, worksByKeyboard, prints, holdsLargeReports]);
