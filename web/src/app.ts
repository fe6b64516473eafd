// Puts the parts of the page together: one stream feeds all of them.
import { Charts } from "./charts";
import { element, setText } from "./format";
import { Health, STATES } from "./health";
import { Ladder } from "./ladder";
import { InstrumentList } from "./list";
import type { Book, FeedEvent, Row, Samples, Status, Trade } from "./model";
import { Stream } from "./stream";
import { Tape } from "./tape";

const search = element<HTMLInputElement>("search");
const ladder = new Ladder();
const tape = new Tape();
const charts = new Charts();
const health = new Health();
const list = new InstrumentList(choose);
const stream = new Stream(receive, showConnection);

let chosen = decodeURIComponent(location.hash.slice(1));
let connected = false;
let state = "connecting";
let problem: string | null = null;
let typing = 0;

function showState(): void {
    const shown = connected ? state : state === "connecting" ? state : "disconnected";
    element("state").dataset["state"] = shown;
    setText(element("state-text"), shown);
    const banner = element("banner");
    const text = shown === "live" || shown === "connecting" ? "" : (shown === "absent" && problem) || STATES[shown] || shown;
    banner.hidden = text === "";
    banner.dataset["state"] = shown;
    setText(banner, text);
    document.body.classList.toggle("old", !["live", "connecting", "loading"].includes(shown));
    document.title = shown === "live" ? `${chosen || "Vorn"} · Vorn` : `${shown} · Vorn`;
}

function showConnection(is: boolean): void {
    connected = is;
    if (!is && state !== "connecting") state = "disconnected";
    showState();
}

function choose(inst_id: string): void {
    if (inst_id === "" || inst_id === chosen) return;
    history.replaceState(null, "", `#${encodeURIComponent(inst_id)}`);
    begin(inst_id);
}

function begin(inst_id: string): void {
    chosen = inst_id;
    ladder.clear(inst_id);
    tape.clear();
    charts.clear(inst_id);
    list.select(inst_id);
    stream.open(inst_id, search.value.trim());
}

function receive(name: string, data: unknown): void {
    switch (name) {
        case "status": {
            const status = data as Status;
            state = status.state;
            problem = status.problem;
            health.showStatus(status);
            if (state === "live") charts.tick();
            showState();
            break;
        }
        case "events":
            health.showEvents(data as { reset: boolean; events: FeedEvent[] });
            break;
        case "instruments":
            list.show(data as { total: number; found: number; instruments: Row[] });
            if (!chosen) choose(list.ids[0] ?? "");
            break;
        case "book":
            ladder.show(data as Book);
            charts.add(data as Book, ladder.priceDecimals);
            break;
        case "trades": {
            const trades = data as { inst_id: string; reset: boolean; trades: Trade[] };
            if (trades.inst_id === chosen) tape.show(trades, ladder.priceDecimals);
            break;
        }
        case "chart":
            charts.begin(data as Samples);
            break;
    }
}

search.addEventListener("input", () => {
    clearTimeout(typing);
    typing = window.setTimeout(() => stream.open(chosen, search.value.trim()), 150);
});
search.addEventListener("keydown", (event) => {
    if (event.key === "Enter") {
        choose(list.ids[0] ?? "");
    } else if (event.key === "ArrowDown") {
        event.preventDefault();
        element("instruments").focus();
        if (!list.ids.includes(chosen)) choose(list.ids[0] ?? "");
    } else if (event.key === "Escape" && search.value !== "") {
        search.value = "";
        stream.open(chosen, "");
    }
});

// --- Colours: as the system has them, or as chosen here.

const THEMES = ["system", "dark", "light"] as const;
let theme = (localStorage.getItem("theme") ?? "system") as (typeof THEMES)[number];

function showTheme(): void {
    if (theme === "system") delete document.documentElement.dataset["theme"];
    else document.documentElement.dataset["theme"] = theme;
    const names = { system: "as the system has them", dark: "dark", light: "light" };
    const button = element("theme");
    button.setAttribute("aria-label", `Colours: ${names[theme]}`);
    button.title = `Colours: ${names[theme]}`;
    setText(button, { system: "◐", dark: "☾", light: "☀" }[theme]);
    charts.restyle();
}

function nextTheme(): void {
    theme = THEMES[(THEMES.indexOf(theme) + 1) % THEMES.length]!;
    localStorage.setItem("theme", theme);
    showTheme();
}

element("theme").addEventListener("click", nextTheme);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => charts.restyle());

document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || event.target === search) return;
    if (event.key === "/") {
        event.preventDefault();
        search.focus();
        search.select();
    } else if (event.key === "t") {
        nextTheme();
    }
});
addEventListener("hashchange", () => {
    const named = decodeURIComponent(location.hash.slice(1));
    if (named && named !== chosen) begin(named);
});

showTheme();
showState();
begin(chosen);
