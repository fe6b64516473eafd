// The page as somebody uses it, in a real browser over a real feed. Nothing here measures time:
// what must come is waited for, and what must not break is looked at.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { connect } from "node:net";
import { after, before, test } from "node:test";
import { LiveFeed, later, openBrowser } from "./feed.mjs";

const PATIENCE = { timeout: 120_000 };
// Rows behind the first ones, which are like them.
const ALIKE = [[".option:nth-child(n+4)"], ["#trades li:nth-child(n+4)"], [".events li:nth-child(n+6)"]];
let feed;
let browser;
let page;
const complaints = [];

async function openPage(options = {}) {
    const context = await browser.newContext({ viewport: { width: 1440, height: 1000 }, ...options });
    const opened = await context.newPage();
    opened.setDefaultTimeout(PATIENCE.timeout);
    opened.on("pageerror", (error) => complaints.push(String(error)));
    opened.on("console", (message) => {
        if (message.type() === "error" && !message.text().includes("net::ERR")) {
            complaints.push(message.text());
        }
    });
    opened.on("request", (request) => {
        if (!request.url().startsWith(feed.url)) complaints.push(`asks for ${request.url()}`);
    });
    await opened.goto(feed.url);
    return opened;
}

const text = (selector) => page.locator(selector).first().textContent();

// Asks again until it is so. (The browser's own waiting needs eval, which the page forbids.)
async function until(condition, argument) {
    for (const end = Date.now() + PATIENCE.timeout; !(await page.evaluate(condition, argument)); ) {
        assert.ok(Date.now() < end, `never so: ${condition} ${argument ?? ""}`);
        await later(50);
    }
}
const changes = (selector, from) =>
    until(([s, f]) => document.querySelector(s)?.textContent !== f, [selector, from]);
const shows = (selector, wanted) =>
    until(([s, w]) => document.querySelector(s)?.textContent === w, [selector, wanted]);
const state = (wanted) => shows("#state-text", wanted);

before(async () => {
    const faults = Array.from({ length: 100 }, (_, i) => `gap@${6 + 6 * i}`).join("+");
    feed = await LiveFeed.start({ rate: 400, faults });
    browser = await openBrowser();
    page = await openPage();
});
after(async () => {
    await browser?.close();
    await feed?.end();
});

test("shows the feed and the most traded instrument's book without being asked", async () => {
    await state("live");
    await page.waitForSelector("#bids tr:first-child .price:not(:empty)");
    assert.match(await text("#book-title"), /^[A-Za-z]+\d+/);
    assert.equal(await page.locator("#instruments [aria-selected=true]").count(), 1);
    await page.waitForSelector("#price-chart canvas");
});

test("the best bid changes without a reload", async () => {
    await page.evaluate(() => { window.notReloaded = true; });
    const best = "#bids tr:first-child";
    await changes(best, await text(best));
    await changes(best, await text(best));
    assert.equal(await page.evaluate(() => window.notReloaded), true);
});

test("search finds an instrument, by keyboard alone", async () => {
    await page.keyboard.press("/");
    await page.keyboard.type("CU2603");
    await until(
        () => [...document.querySelectorAll("#instruments .name")].every((n) => n.textContent.includes("cu2603")) &&
            document.querySelectorAll("#instruments .name").length > 0);
    await page.keyboard.press("Enter");
    await shows("#book-title", "cu2603");
    await page.waitForSelector("#asks tr:last-child .price:not(:empty)");
    assert.equal(new URL(page.url()).hash, "#cu2603");
    await page.keyboard.press("Escape");
    await until(() => document.querySelectorAll("#instruments .name").length > 20);
    await page.keyboard.press("ArrowDown");
    await page.keyboard.press("ArrowDown");
    await until(() => document.querySelector("#book-title").textContent !== "cu2603");
});

test("nothing moves while the numbers change", async () => {
    const boxes = () => page.evaluate(() =>
        [...document.querySelectorAll(".card, .ladder tr, .facts div, .vitals div")].map((e) => {
            const box = e.getBoundingClientRect();
            return [box.x, box.y, box.width, box.height].map(Math.round).join();
        }));
    const first = await boxes();
    await changes("#bids tr:first-child", await text("#bids tr:first-child"));
    assert.deepEqual(await boxes(), first);
});

test("a gap appears on the timeline, and the restart behind it", async () => {
    const marks = (kind) => page.locator(`#timeline .mark[data-kind=${kind}]`).count();
    const before = await marks("gap");
    await until(
        (n) => document.querySelectorAll("#timeline .mark[data-kind=gap]").length > n, before);
    await page.waitForSelector("#timeline .mark[data-kind=restart]", { state: "attached" });
    await page.waitForSelector("#events [data-kind=gap]", { state: "attached" });
    assert.match(await page.getAttribute("#timeline", "aria-label"), /[1-9]\d* gaps, [1-9]\d* restarts/);
    await state("live");
});

test("axe-core finds no serious fault, in light, dark and on a phone", async () => {
    const axe = readFileSync(new URL("../node_modules/axe-core/axe.min.js", import.meta.url), "utf8");
    for (const [options, rules] of [
        [{ colorScheme: "light" }, {}],
        [{ colorScheme: "dark" }, { runOnly: ["color-contrast"] }],
        [{ viewport: { width: 360, height: 740 } }, { rules: { "color-contrast": { enabled: false } } }],
    ]) {
        const other = await openPage({ reducedMotion: "reduce", ...options });
        await other.waitForSelector("#bids tr:first-child .price:not(:empty)");
        await other.evaluate(axe);
        const { violations } = await other.evaluate(
            ([context, r]) => window.axe.run(context, { ...r, resultTypes: ["violations"] }), [{ include: [["html"]], exclude: ALIKE }, rules]);
        const serious = violations.filter((v) => ["serious", "critical"].includes(v.impact));
        assert.deepEqual(serious.map((v) => `${v.id}: ${v.nodes.map((n) => n.html).join(" ")}`), []);
        const width = await other.evaluate(() => document.documentElement.scrollWidth);
        assert.ok(width <= other.viewportSize().width, `${width} wide`);
        await other.context().close();
    }
});

test("200 pages and one that never reads leave the feed as it is", async () => {
    const before = await feed.json("api/status");
    const [host, port] = feed.address.split(":");
    const request = `GET /api/stream?instrument=cu2603&q= HTTP/1.1\r\nHost: ${host}\r\n\r\n`;
    const readers = Array.from({ length: 200 }, () => {
        const socket = connect(Number(port), host);
        const reader = { socket, statuses: 0, answer: "" };
        socket.on("error", () => {});
        socket.on("data", (bytes) => {
            const received = bytes.toString();
            if (reader.answer === "") reader.answer = received.slice(0, 15);
            reader.statuses += received.split("event: status").length - 1;
        });
        socket.write(request);
        return reader;
    });
    const deaf = connect(Number(port), host);
    deaf.on("error", () => {});
    deaf.pause();
    deaf.write(request);
    while (readers.some((reader) => reader.statuses < 3)) await later(50);
    for (const reader of readers) assert.equal(reader.answer, "HTTP/1.1 200 OK");
    await changes("#bids tr:first-child", await text("#bids tr:first-child"));
    const now = await feed.json("api/status");
    assert.ok(now.counters.updates > before.counters.updates);
    for (const counter of ["overflows", "cache_dropped", "abnormal_lengths", "refused"]) {
        assert.equal(now.counters[counter], before.counters[counter], counter);
    }
    assert.equal(now.ring.lost, before.ring.lost);
    for (const reader of readers) reader.socket.destroy();
    deaf.destroy();
});

test("says when the server has gone, and comes back with it", async () => {
    const { address } = feed;
    await feed.stop(feed.server, "SIGTERM");
    await state("disconnected");
    assert.match(await text("#banner"), /Disconnected/);
    // A connection of somebody else may have the port for a moment.
    for (let tries = 0; ; ++tries) {
        try {
            await feed.serve(address);
            break;
        } catch (error) {
            assert.ok(tries < 100, String(error));
            await later(500);
        }
    }
    await state("live");
    assert.equal(await page.evaluate(() => window.notReloaded), true);
});

test("says when the feed has died", async () => {
    await feed.stop(feed.publisher, "SIGKILL");
    await state("dead");
    assert.match(await text("#banner"), /died/);
    await page.waitForSelector("#timeline .segment[data-kind=dead]", { state: "attached" });
});

test("the browser had nothing to complain about", () => {
    assert.deepEqual(complaints, []);
});
