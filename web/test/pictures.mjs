// The pictures of docs/serve.md: light, dark and on a phone.
import { LiveFeed, later, openBrowser } from "./feed.mjs";

const SECONDS = 75; // so that the charts have something to show
const feed = await LiveFeed.start({
    bus: "picture", rate: 3000, instruments: 400, faults: "gap@18+gap@40+overflow@52:40",
});
const browser = await openBrowser();
try {
    for (let second = 0; second < SECONDS || (await feed.json("api/status")).state !== "live"; ++second) {
        await later(1000);
    }
    for (const [name, colorScheme, width, height, fullPage] of [
        ["serve-light", "light", 1440, 1000, false],
        ["serve-dark", "dark", 1440, 1000, false],
        ["serve-phone", "light", 390, 844, true],
    ]) {
        const context = await browser.newContext({ viewport: { width, height }, colorScheme });
        const page = await context.newPage();
        await page.goto(`${feed.url}#cu2603`);
        await page.waitForSelector("#bids tr:first-child .price:not(:empty)");
        await later(3000);
        const path = new URL(`../../docs/images/${name}.png`, import.meta.url).pathname;
        await page.screenshot({ path, fullPage });
        await context.close();
    }
} finally {
    await browser.close();
    await feed.end();
}
