// Best prices, last price and spread over the last minutes.
import uPlot from "uplot";
import { element, price, setText } from "./format";
import type { Book, Samples } from "./model";

const KEPT_S = 600;
const STEP_S = 0.25; // a point at most every quarter of a second

type Line = (number | null)[];

function colour(name: string): string {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

export class Charts {
    private inst_id = "";
    private times: number[] = [];
    private bid: Line = [];
    private ask: Line = [];
    private last: Line = [];
    private decimals = 0;
    private span = 300;
    private priceChart: uPlot | null = null;
    private spreadChart: uPlot | null = null;
    private dirty = false;

    constructor() {
        new ResizeObserver(() => this.resize()).observe(element("price-chart"));
        setInterval(() => this.draw(), 250);
        for (const button of document.querySelectorAll<HTMLButtonElement>("[data-span]")) {
            button.addEventListener("click", () => {
                this.span = Number(button.dataset["span"]);
                for (const other of document.querySelectorAll<HTMLButtonElement>("[data-span]")) {
                    other.setAttribute("aria-pressed", String(other === button));
                }
                this.dirty = true;
            });
        }
    }

    clear(inst_id: string): void {
        this.inst_id = inst_id;
        this.times = [];
        this.bid = [];
        this.ask = [];
        this.last = [];
        this.decimals = 0;
        this.dirty = true;
    }

    // What the server has kept of before this page was opened.
    begin(samples: Samples): void {
        if (samples.inst_id !== this.inst_id || this.times.length > samples.time_ns.length) return;
        this.times = samples.time_ns.map((t) => t / 1e9);
        this.bid = samples.bid;
        this.ask = samples.ask;
        this.last = samples.last;
        this.dirty = true;
    }

    add(book: Book, decimals: number): void {
        if (book.inst_id !== this.inst_id) return;
        this.decimals = decimals;
        const bid = book.bids[0]?.price ?? null;
        const ask = book.asks[0]?.price ?? null;
        this.push(Date.now() / 1000, bid, ask, book.volume > 0 ? book.last_px : null);
    }

    // Time goes on without updates too.
    tick(): void {
        if (this.times.length > 0) {
            this.push(Date.now() / 1000, this.bid.at(-1)!, this.ask.at(-1)!, this.last.at(-1)!);
        }
    }

    private push(time: number, bid: number | null, ask: number | null, last: number | null): void {
        const newest = this.times.at(-1);
        if (newest !== undefined && time <= newest) return;
        const before = this.times.at(-2);
        if (before !== undefined && newest !== undefined && newest - before < STEP_S) {
            for (const line of [this.times, this.bid, this.ask, this.last]) line.pop();
        }
        this.times.push(time);
        this.bid.push(bid);
        this.ask.push(ask);
        this.last.push(last);
        while (this.times[0]! < time - KEPT_S) {
            for (const line of [this.times, this.bid, this.ask, this.last]) line.shift();
        }
        this.dirty = true;
    }

    private draw(): void {
        if (!this.dirty || document.hidden) return;
        this.dirty = false;
        if (!this.priceChart) this.make();
        const now = this.times.at(-1) ?? Date.now() / 1000;
        // Not more than there is to see, but a minute at least.
        const min = Math.min(Math.max(now - this.span, this.times[0] ?? now), now - 60);
        const spread = this.times.map((_, i) => {
            const bid = this.bid[i];
            const ask = this.ask[i];
            return bid == null || ask == null ? null : ask - bid;
        });
        const charts: [uPlot | null, Line[]][] = [
            [this.priceChart, [this.bid, this.ask, this.last]],
            [this.spreadChart, [spread]],
        ];
        for (const [chart, lines] of charts) {
            chart?.batch(() => {
                chart.setData([this.times, ...lines] as uPlot.AlignedData, false);
                chart.setScale("x", { min, max: now });
            });
        }
        setText(element("chart-bid"), price(this.bid.at(-1) ?? null, this.decimals));
        setText(element("chart-ask"), price(this.ask.at(-1) ?? null, this.decimals));
        setText(element("chart-last"), price(this.last.at(-1) ?? null, this.decimals));
    }

    // The colours have changed.
    restyle(): void {
        this.priceChart?.destroy();
        this.spreadChart?.destroy();
        this.priceChart = null;
        this.spreadChart = null;
        this.dirty = true;
    }

    private make(): void {
        const line = (stroke: string, width: number, fill?: string): uPlot.Series => ({
            stroke,
            width,
            fill,
            paths: uPlot.paths.stepped!({ align: 1 }),
            points: { show: false },
        });
        this.priceChart = this.chart("price-chart", [
            line(colour("--bid"), 1.5),
            line(colour("--ask"), 1.5),
            line(colour("--trade"), 1),
        ]);
        this.spreadChart = this.chart("spread-chart", [
            line(colour("--muted"), 1, colour("--wash")),
        ]);
    }

    private chart(id: string, lines: uPlot.Series[]): uPlot {
        const box = element(id);
        const small = id === "spread-chart";
        const axis = {
            stroke: colour("--muted"),
            font: "11px system-ui, sans-serif",
            grid: { stroke: colour("--line"), width: 1 },
            ticks: { show: false },
        };
        return new uPlot(
            {
                width: box.clientWidth,
                height: box.clientHeight,
                legend: { show: false },
                cursor: { show: false },
                padding: [8, 26, small ? 8 : 0, 0],
                series: [{}, ...lines],
                axes: [
                    { ...axis, size: 24, space: 70, show: !small,
                      values: (_chart, times) => times.map((t) => new Date(t * 1000).toTimeString().slice(0, 8)) },
                    { ...axis, size: 76, space: small ? 24 : 34,
                      values: (_chart, values) => values.map((v) => price(v, this.axisDecimals(values))) },
                ],
                scales: {
                    x: { time: true },
                    // A quiet market is a line in the middle, not a range of nothing.
                    y: { range: (_chart, low, high) => this.range(low, high, small) },
                },
            },
            [[], ...lines.map(() => [])] as unknown as uPlot.AlignedData,
            box,
        );
    }

    private axisDecimals(values: number[]): number {
        const step = values.length > 1 ? Math.abs(values[1]! - values[0]!) : 1;
        return Math.max(0, Math.min(4, Math.ceil(-Math.log10(step) - 1e-9)));
    }

    private range(low: number | null, high: number | null, fromZero: boolean): [number, number] {
        if (low === null || high === null) return [0, 1];
        const tick = 10 ** -this.decimals;
        const room = Math.max((high - low) * 0.08, tick);
        return fromZero ? [0, Math.max(high, tick) * 1.15] : [low - room, high + room];
    }

    private resize(): void {
        for (const [chart, id] of [[this.priceChart, "price-chart"], [this.spreadChart, "spread-chart"]] as const) {
            const box = element(id);
            chart?.setSize({ width: box.clientWidth, height: box.clientHeight });
        }
    }
}
