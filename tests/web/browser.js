// SPDX-License-Identifier: Apache-2.0
// Writes pages with `memleak html` and opens them in Chromium, for the tests of the page. Tests are
// run as: node TEST MEMLEAK NODE_MODULES WORK_DIRECTORY

import assert from "node:assert/strict";
import { execFileSync, spawn } from "node:child_process";
import { mkdirSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join, resolve } from "node:path";
import { pathToFileURL } from "node:url";

const [memleak, modules, work] = process.argv.slice(2);
export const packages = createRequire(join(resolve(modules), "here.js"));
mkdirSync(work, { recursive: true });

export const run = (...args) => execFileSync(memleak, args, { encoding: "utf8", maxBuffer: 1 << 30 });
/** Starts the program and does not wait for it. */
export const start = (...args) => spawn(memleak, args, { stdio: "ignore" });
export const inWork = (name) => join(work, name);

export function file(name, text) {
  writeFileSync(inWork(name), text);
  return inWork(name);
}

/** Writes the page of a document. */
export function write(name, document) {
  const html = inWork(`${name}.html`);
  run("html", file(`${name}.json`, JSON.stringify(document)), "-o", html);
  return html;
}

/** Opens a page at a fragment. Collects console messages and network requests as complaints. */
export async function open(browser, html, fragment = "", settings = {}) {
  const page = await browser.newPage({ viewport: { width: 1280, height: 900 }, ...settings });
  page.complaints = [];
  page.on("console", (message) => page.complaints.push(message.text()));
  page.on("pageerror", (error) => page.complaints.push(String(error)));
  page.on("request", (request) => {
    if (!/^(file|data):/.test(request.url())) page.complaints.push(request.url());
  });
  await page.goto(pathToFileURL(resolve(html)).href + fragment);
  await page.waitForSelector("[role=tab]");
  return page;
}

export async function close(page) {
  assert.deepEqual(page.complaints, []);
  assert.equal(await page.evaluate(() => window.hacked), undefined);
  await page.close();
}

/** Runs `tests` one by one in a new browser. */
export async function runTests(tests) {
  const browser = await packages("playwright-core").chromium.launch({
    executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium",
    args: ["--no-sandbox", "--disable-dev-shm-usage"],
  });
  try {
    for (const test of tests) {
      await test(browser);
      console.log(`ok ${test.name}`);
    }
  } finally {
    await browser.close();
  }
}

export const count = (number) => number.toLocaleString("en-US");
export const rows = (page) => page.locator("[role=tabpanel]:visible tr.row");
export const column = (page, key) => rows(page).locator(`td.${key}`).allInnerTexts();
export const show = (page, tab) => page.click(`#tab-${tab}`);
/** Types into the search and waits for its result. */
export async function search(page, text) {
  const before = await page.innerText("#found");
  await page.fill("#search", text);
  await page.waitForFunction((old) => document.getElementById("found").textContent !== old, before);
}
