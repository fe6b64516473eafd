// A simulated session, the feed with its bus, the server and a browser, for tests and pictures.
import { spawn } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium } from "playwright-core";

const program = process.env.VORN_PROGRAM;
const web = new URL("../dist", import.meta.url).pathname;

export function later(milliseconds) {
    return new Promise((resolve) => setTimeout(resolve, milliseconds));
}

export class LiveFeed {
    static async start({ rate, faults = "", instruments = 60, bus = `page-test-${process.pid}` }) {
        const feed = new LiveFeed();
        feed.bus = bus;
        feed.folder = mkdtempSync(join(tmpdir(), "vorn-page-"));
        const device =
            `sim:seed=7&instruments=${instruments}&changes=0&seconds=3600&rate=${rate}&speed=1` +
            `&first_round_ms=300&round_interval_ms=2000&round_ms=200${faults && `&fault=${faults}`}`;
        writeFileSync(
            join(feed.folder, "vorn.ini"),
            `[config]\ndevice = ${device}\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n` +
                `recovery = enabled\ncpucore = 0\nlog_level = 7\n`,
        );
        feed.publisher = spawn(program, ["publish", "--config", "vorn.ini", "--bus", feed.bus, "-q"], {
            cwd: feed.folder, stdio: "ignore",
        });
        await feed.serve("127.0.0.1:0");
        return feed;
    }

    async serve(listen) {
        this.server = spawn(program, ["serve", "--bus", this.bus, "--listen", listen, "--web", web], {
            stdio: ["ignore", "ignore", "pipe"],
        });
        this.address = await new Promise((resolve, reject) => {
            let text = "";
            this.server.stderr.on("data", (bytes) => {
                text += bytes;
                const found = text.match(/http:\/\/(127\.0\.0\.1:\d+)\//);
                if (found) resolve(found[1]);
            });
            this.server.on("exit", () => reject(new Error(`the server has ended: ${text}`)));
        });
    }

    get url() {
        return `http://${this.address}/`;
    }

    async json(path) {
        return (await fetch(this.url + path)).json();
    }

    async stop(child, signal) {
        if (child.exitCode === null && child.signalCode === null) {
            const ended = new Promise((resolve) => child.once("exit", resolve));
            child.kill(signal);
            await ended;
        }
    }

    async end() {
        await this.stop(this.server, "SIGKILL");
        await this.stop(this.publisher, "SIGKILL");
        rmSync(this.folder, { recursive: true, force: true });
        rmSync(`/dev/shm/vorn.${this.bus}.bus`, { force: true });
        rmSync(`/dev/shm/vorn.${this.bus}.bus.lock`, { force: true });
    }
}

export function openBrowser() {
    return chromium.launch({
        executablePath: process.env.VORN_CHROMIUM ?? "/usr/bin/chromium",
        args: ["--no-sandbox", "--disable-dev-shm-usage"], // tests often run as root, in a container
    });
}
