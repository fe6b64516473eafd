// The book as a ladder of ten levels a side, in rows that never move.
import { clock, count, decimalsOf, element, price, setText } from "./format";
import type { Book, Level } from "./model";

const LEVELS = 10;

interface Rung {
    root: HTMLElement;
    price: HTMLElement;
    lots: HTMLElement;
    bar: HTMLElement;
}

function addRung(body: HTMLElement, side: "bid" | "ask"): Rung {
    const root = document.createElement("tr");
    root.className = side;
    const cell = () => root.appendChild(document.createElement("td"));
    const [left, middle, right] = [cell(), cell(), cell()];
    const lotsCell = side === "bid" ? left : right;
    const bar = lotsCell.appendChild(document.createElement("span"));
    bar.className = "bar";
    const lots = lotsCell.appendChild(document.createElement("span"));
    lots.className = "lots";
    middle.className = "price";
    body.append(root);
    return { root, price: middle, lots, bar };
}

const FACTS = ["High", "Low", "Volume", "Open interest", "Change", "Time"] as const;

export class Ladder {
    private readonly asks: Rung[] = [];
    private readonly bids: Rung[] = [];
    private readonly facts = new Map<string, HTMLElement>();
    private decimals = 0;
    private inst_id = "";
    private last = 0;

    constructor() {
        for (let i = 0; i < LEVELS; ++i) {
            this.asks.unshift(addRung(element("asks"), "ask"));
            this.bids.push(addRung(element("bids"), "bid"));
        }
        for (const name of FACTS) {
            const pair = document.createElement("div");
            const term = pair.appendChild(document.createElement("dt"));
            const value = pair.appendChild(document.createElement("dd"));
            term.textContent = name;
            value.textContent = "–";
            element("facts").append(pair);
            this.facts.set(name, value);
        }
    }

    // Another instrument was chosen: nothing of the old one stays.
    clear(inst_id: string): void {
        this.inst_id = inst_id;
        this.decimals = 0;
        this.last = 0;
        setText(element("book-title"), inst_id || "Book");
        setText(element("last"), "");
        setText(element("spread"), "–");
        element("exchange").hidden = true;
        this.fill(this.asks, []);
        this.fill(this.bids, []);
        for (const value of this.facts.values()) setText(value, "–");
    }

    get priceDecimals(): number {
        return this.decimals;
    }

    show(book: Book): void {
        if (book.inst_id !== this.inst_id) return;
        const prices = [...book.bids, ...book.asks].map((level) => level.price);
        this.decimals = Math.max(this.decimals, decimalsOf(prices));
        this.fill(this.asks, book.asks);
        this.fill(this.bids, book.bids);
        const bid = book.bids[0]?.price;
        const ask = book.asks[0]?.price;
        setText(
            element("spread"),
            bid === undefined || ask === undefined
                ? "one side only"
                : `spread ${price(ask - bid, this.decimals)}`,
        );
        const last = element("last");
        setText(last, book.volume > 0 ? price(book.last_px, this.decimals) : "no trade yet");
        if (this.last !== 0 && book.last_px !== this.last) {
            last.dataset["direction"] = book.last_px > this.last ? "up" : "down";
        }
        this.last = book.last_px;
        const exchange = element("exchange");
        exchange.hidden = false;
        setText(exchange, book.exchange);
        this.fact("High", book.volume > 0 ? price(book.highest_price, this.decimals) : "–");
        this.fact("Low", book.volume > 0 ? price(book.lowest_price, this.decimals) : "–");
        this.fact("Volume", count(book.volume));
        this.fact("Open interest", count(book.open_interest));
        this.fact("Change", count(book.change_no));
        this.fact("Time", clock(book.time_ns));
    }

    private fact(name: (typeof FACTS)[number], text: string): void {
        setText(this.facts.get(name)!, text);
    }

    private fill(rungs: Rung[], levels: Level[]): void {
        const sides = [...this.totals(levels)];
        const most = Math.max(1, sides[sides.length - 1] ?? 0);
        rungs.forEach((rung, i) => {
            const level = levels[i];
            rung.root.classList.toggle("empty", !level);
            setText(rung.price, level ? price(level.price, this.decimals) : "");
            setText(rung.lots, level ? count(level.volume) : "");
            rung.bar.style.transform = `scaleX(${level ? ((sides[i] ?? 0) / most).toFixed(4) : 0})`;
            rung.root.title = level ? `${count(sides[i] ?? 0)} lots up to here` : "";
        });
    }

    private *totals(levels: Level[]): Generator<number> {
        let sum = 0;
        for (const level of levels) {
            sum += level.volume;
            yield sum;
        }
    }
}
