// SPDX-License-Identifier: Apache-2.0
// Makes the page without its data: one file of markup, styles and code, with a mark where the data
// goes. Run by the build:
//   node bundle.js NODE_MODULES OUTPUT VERSION
// NODE_MODULES is where the packages of package.json are, which is not beside this file.

import { readFileSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";

const [modules, output, version] = process.argv.slice(2);
const here = dirname(fileURLToPath(import.meta.url));
const esbuild = createRequire(join(modules, "here.js"))("esbuild");

const { outputFiles } = await esbuild.build({
  entryPoints: [join(here, "src/main.ts")],
  nodePaths: [modules],
  outdir: "/",
  bundle: true,
  minify: true,
  write: false,
  format: "iife",
  target: "es2022",
  charset: "utf8",
  legalComments: "none",
  logLevel: "warning",
});
const text = (ending) => outputFiles.find((file) => file.path.endsWith(ending)).text.trim();
const parts = { VERSION: version, STYLE: text(".css"), SCRIPT: text(".js") };
const page = readFileSync(join(here, "page.html"), "utf8");
writeFileSync(
  output,
  page.replace(/@(VERSION|STYLE|SCRIPT)@/g, (_, name) => parts[name]),
);
