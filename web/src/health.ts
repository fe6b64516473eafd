// State, phases as a timeline with everything that happened on it, counters and events.
import { clock, count, duration, element, setText, span } from "./format";
import type { FeedEvent, Status } from "./model";

const KEPT = 256;
const LINES = 60;
const LONGEST_S = 600;
const SHORTEST_S = 60;

const COUNTERS: [string, string, boolean?][] = [
    ["frames", "Frames"], ["updates", "Updates"], ["stale", "Stale"], ["unsubscribed", "Unsubscribed"],
    ["gaps", "Gaps", true], ["restarts", "Restarts", true], ["overflows", "Overflows", true],
    ["restored_books", "Restored books", true], ["refused", "Refused", true],
    ["abnormal_lengths", "Abnormal lengths", true], ["cached", "Cached"], ["replayed", "Replayed"],
    ["cache_dropped", "Cache dropped", true], ["snapshot_frames", "Snapshot frames"],
    ["snapshot_wipes", "Snapshot wipes", true],
];

const PHASES: Record<string, string> = {
    stopped: "stopped", bring_up: "bring-up", snapshot: "snapshot", replay: "replay", live: "live",
};

export const STATES: Record<string, string> = {
    connecting: "Connecting to the server.",
    loading: "The feed loads a snapshot; books follow when it is live.",
    stale: "Stale: the feed runs, but no update has come for more than a second and a half.",
    dead: "Dead: the process that ran the feed has died. What you see is its last word.",
    stopped: "Stopped: the feed has ended in order. What you see is its last word.",
    disconnected: "Disconnected from the server; trying again.",
};

function describe(event: FeedEvent): string {
    switch (event.kind) {
        case "phase":
            return `${PHASES[event.previous_phase ?? ""] ?? "?"} → ${PHASES[event.phase] ?? event.phase}`;
        case "gap":
            return `gap in ${event.inst_id}: ${event.received} came, ${event.expected} was due`;
        case "restart":
            return `restart ${event.count}`;
        case "round":
            return `snapshot round of ${event.feed?.replace("_", " ")}: ${event.count} instruments`;
        case "overflow":
            return `overflow ${event.count} of the card's ring`;
        case "opened":
            return `bus opened, writer ${event.generation}`;
        case "dead":
            return "the writer has died";
        case "closed":
            return "the writer has ended";
        case "revived":
            return "the writer is back";
        default:
            return event.kind;
    }
}

export class Health {
    private events: FeedEvent[] = [];
    private readonly counters = new Map<string, HTMLElement>();
    private offset_ms = 0; // of the server's clock to this one
    private status: Status | null = null;

    constructor() {
        for (const [key, name] of COUNTERS) {
            const pair = element("counters").appendChild(document.createElement("div"));
            pair.appendChild(document.createElement("dt")).textContent = name;
            const value = pair.appendChild(document.createElement("dd"));
            value.textContent = "–";
            this.counters.set(key, value);
        }
        setInterval(() => this.drawTimeline(), 1000);
    }

    showStatus(status: Status): void {
        this.status = status;
        this.offset_ms = status.time_ns / 1e6 - Date.now();
        setText(element("age"), span(status.age_s));
        setText(element("rate"), count(status.updates_per_s));
        setText(element("frames"), count(status.frames_per_s));
        const since = status.phase_since_ns;
        setText(
            element("phase"),
            since === null
                ? "–"
                : `${PHASES[status.phase] ?? status.phase} ${duration((status.time_ns - since) / 1e6)}`,
        );
        setText(element("bus"), status.writer ? `${status.bus} · ${status.writer.pid}` : status.bus);
        for (const [key, , bad] of COUNTERS) {
            const value = this.counters.get(key)!;
            const number = status.counters?.[key];
            setText(value, number === undefined ? "–" : count(number));
            value.classList.toggle("bad", Boolean(bad) && (number ?? 0) > 0);
        }
    }

    showEvents(message: { reset: boolean; events: FeedEvent[] }): void {
        this.events = (message.reset ? message.events : [...this.events, ...message.events]).slice(-KEPT);
        const list = element("events");
        const newest = this.events.slice(-LINES).reverse();
        list.replaceChildren(
            ...newest.map((event) => {
                const line = document.createElement("li");
                line.dataset["kind"] = event.kind;
                const time = line.appendChild(document.createElement("time"));
                time.textContent = clock(event.time_ns, true);
                line.appendChild(document.createElement("span")).textContent = describe(event);
                return line;
            }),
        );
        this.drawTimeline();
    }

    private drawTimeline(): void {
        const box = element("timeline");
        const now = Date.now() + this.offset_ms;
        const first = Math.min(now, ...this.events.map((event) => event.time_ns / 1e6));
        const length = Math.min(Math.max(now - first, SHORTEST_S * 1000), LONGEST_S * 1000);
        const begin = now - length;
        const at = (time: number) => ((time - begin) / length) * 100;
        const parts: HTMLElement[] = [];
        const add = (kind: string, from: number, to: number | null, title: string) => {
            if ((to ?? from) < begin) return;
            const part = document.createElement("span");
            part.className = to === null ? "mark" : "segment";
            part.dataset["kind"] = kind;
            part.title = title;
            part.style.left = `${Math.max(0, at(from)).toFixed(3)}%`;
            if (to !== null) part.style.width = `${(at(to) - Math.max(0, at(from))).toFixed(3)}%`;
            parts.push(part);
        };
        let phase = "";
        let since = begin;
        const marks: FeedEvent[] = [];
        for (const event of this.events) {
            const time = event.time_ns / 1e6;
            const next = { phase: event.phase, dead: "dead", closed: "stopped", revived: event.phase }[event.kind as "phase"];
            if (!phase && event.kind === "phase" && event.previous_phase !== "stopped") {
                phase = event.previous_phase ?? ""; // its beginning is older than what is known
            }
            if (next !== undefined && next !== phase) {
                if (phase) add(phase, since, time, `${PHASES[phase] ?? phase} until ${clock(event.time_ns)}`);
                phase = next;
                since = time;
            }
            if (["gap", "restart", "overflow"].includes(event.kind)) marks.push(event);
        }
        if (!phase && this.status?.phase_since_ns) {
            phase = this.status.phase;
            since = Math.max(begin, this.status.phase_since_ns / 1e6);
        }
        if (phase) add(phase, since, now, `${PHASES[phase] ?? phase} since ${clock(since * 1e6)}`);
        for (const event of marks) {
            add(event.kind, event.time_ns / 1e6, null, `${clock(event.time_ns, true)} ${describe(event)}`);
        }
        box.replaceChildren(...parts);
        const seen = (kind: string) => marks.filter((event) => event.kind === kind && event.time_ns / 1e6 >= begin).length;
        box.setAttribute(
            "aria-label",
            `Phases of the last ${duration(length)}: now ${PHASES[phase] ?? (phase || "unknown")}, ` +
                `${seen("gap")} gaps, ${seen("restart")} restarts, ${seen("overflow")} overflows`,
        );
        const ticks = element("ticks");
        const texts = [0, 0.25, 0.5, 0.75, 1].map((part) => clock((begin + length * part) * 1e6));
        texts.forEach((text, i) => {
            const tick = ticks.children[i] ?? ticks.appendChild(document.createElement("span"));
            setText(tick, text);
        });
    }
}
