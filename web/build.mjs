// Builds the page into dist/: one script, one style sheet and what they need, with no address
// outside the machine. `node build.mjs --out DIR` builds elsewhere.
import * as esbuild from "esbuild";
import { cpSync, mkdirSync, rmSync } from "node:fs";

const at = process.argv.indexOf("--out");
const out = at > 0 ? process.argv[at + 1] : "dist";

rmSync(out, { recursive: true, force: true });
mkdirSync(out, { recursive: true });
for (const file of ["index.html", "icon.svg"]) {
    cpSync(`src/${file}`, `${out}/${file}`);
}
await esbuild.build({
    entryPoints: ["src/app.ts", "src/app.css"],
    bundle: true,
    minify: true,
    format: "esm",
    target: "es2022",
    legalComments: "eof",
    logLevel: "warning",
    outdir: out,
});
