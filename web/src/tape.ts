// The newest trades of the chosen instrument.
import { clock, count, element, price, setText } from "./format";
import type { Trade } from "./model";

const KEPT = 40;

export class Tape {
    private readonly list = element("trades");
    private trades: Trade[] = [];

    clear(): void {
        this.trades = [];
        this.draw(0);
    }

    show(message: { reset: boolean; trades: Trade[] }, decimals: number): void {
        const fresh = [...message.trades].reverse();
        this.trades = (message.reset ? fresh : [...fresh, ...this.trades]).slice(0, KEPT);
        this.draw(decimals);
    }

    private draw(decimals: number): void {
        while (this.list.children.length < this.trades.length) this.list.append(this.addLine());
        while (this.list.children.length > this.trades.length) this.list.lastElementChild?.remove();
        this.trades.forEach((trade, i) => {
            const line = this.list.children[i] as HTMLElement;
            line.dataset["side"] = trade.side ?? "none";
            setText(line.children[0]!, clock(trade.time_ns));
            setText(line.children[1]!, price(trade.price, decimals));
            setText(line.children[2]!, count(trade.volume));
            setText(line.children[3]!, trade.side ?? "inside");
        });
    }

    private addLine(): HTMLElement {
        const line = document.createElement("li");
        line.className = "row";
        for (const kind of ["time", "price", "lots", "hidden"]) {
            const span = document.createElement("span");
            span.className = kind;
            line.append(span);
        }
        return line;
    }
}
