import { chromium } from "playwright-core";
const b = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox"] });
for (const [name, scheme, w, h] of [["light", "light", 1440, 1000], ["dark", "dark", 1440, 1000], ["phone", "light", 390, 844]]) {
  const c = await b.newContext({ viewport: { width: w, height: h }, colorScheme: scheme });
  const p = await c.newPage();
  p.on("console", (m) => console.log(name, m.text()));
  p.on("pageerror", (e) => console.log(name, String(e)));
  await p.goto("http://127.0.0.1:18710/#cu2603");
  await p.waitForTimeout(name === "light" ? 6000 : 3000);
  await p.screenshot({ path: `/tmp/h2run/${name}.png`, fullPage: name === "phone" });
  await c.close();
}
await b.close();
