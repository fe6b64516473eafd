// The list of instruments: a listbox whose rows stay where they are while their numbers change.
import { decimalsOf, element, price, setText, short } from "./format";
import type { Row } from "./model";

interface Line {
    root: HTMLElement;
    name: HTMLElement;
    last: HTMLElement;
    volume: HTMLElement;
    heat: HTMLElement;
}

export class InstrumentList {
    private readonly box = element("instruments");
    private lines: Line[] = [];
    private rows: Row[] = [];
    private readonly before = new Map<string, { last: number; decimals: number }>();
    private selected = "";

    constructor(private readonly onSelect: (inst_id: string) => void) {
        this.box.addEventListener("keydown", (event) => {
            const step = { ArrowDown: 1, ArrowUp: -1, PageDown: 10, PageUp: -10 }[event.key];
            if (step !== undefined) {
                event.preventDefault();
                this.move(step);
            }
        });
    }

    get ids(): string[] {
        return this.rows.map((row) => row.inst_id);
    }

    select(inst_id: string): void {
        this.selected = inst_id;
        this.mark();
    }

    move(step: number): void {
        const at = this.rows.findIndex((row) => row.inst_id === this.selected);
        const to = Math.min(Math.max(at + step, 0), this.rows.length - 1);
        const row = this.rows[to];
        if (row) {
            this.onSelect(row.inst_id);
            this.lines[to]?.root.scrollIntoView({ block: "nearest" });
        }
    }

    show(answer: { total: number; found: number; instruments: Row[] }): void {
        this.rows = answer.instruments;
        setText(
            element("found"),
            answer.found === answer.total ? `${answer.total}` : `${answer.found} of ${answer.total}`,
        );
        while (this.lines.length < this.rows.length) this.lines.push(this.addLine());
        while (this.lines.length > this.rows.length) this.lines.pop()?.root.remove();
        const most = Math.max(1, ...this.rows.map((row) => row.updates));
        this.rows.forEach((row, i) => this.fill(this.lines[i]!, row, row.updates / most));
        this.mark();
    }

    private addLine(): Line {
        const root = document.createElement("div");
        root.className = "row option";
        root.setAttribute("role", "option");
        root.id = `option-${this.lines.length}`;
        const [name, last, volume, heat] = ["name", "price", "volume", "heat"].map((kind) => {
            const span = document.createElement("span");
            span.className = kind;
            root.append(span);
            return span;
        }) as [HTMLElement, HTMLElement, HTMLElement, HTMLElement];
        heat.setAttribute("aria-hidden", "true");
        root.addEventListener("click", () => {
            this.onSelect(root.dataset["id"] ?? "");
            this.box.focus({ preventScroll: true });
        });
        this.box.append(root);
        return { root, name, last, volume, heat };
    }

    private fill(line: Line, row: Row, heat: number): void {
        const before = this.before.get(row.inst_id);
        const last = row.last_px ?? 0;
        const decimals = Math.max(
            decimalsOf([row.last_px, row.bid_px, row.ask_px]),
            before?.decimals ?? 0,
        );
        if (line.root.dataset["id"] !== row.inst_id) {
            line.root.dataset["id"] = row.inst_id;
            delete line.root.dataset["direction"];
        }
        if (before && before.last !== last && before.last !== 0) {
            line.root.dataset["direction"] = last > before.last ? "up" : "down";
            line.root.classList.toggle("flash-a");
            line.root.classList.toggle("flash-b", !line.root.classList.contains("flash-a"));
        }
        this.before.set(row.inst_id, { last, decimals });
        setText(line.name, row.inst_id);
        setText(line.last, last === 0 ? "–" : price(last, decimals));
        setText(line.volume, short(row.volume));
        line.heat.style.transform = `scaleX(${heat.toFixed(3)})`;
    }

    private mark(): void {
        let active = "";
        for (const line of this.lines) {
            const is = line.root.dataset["id"] === this.selected;
            line.root.setAttribute("aria-selected", String(is));
            if (is) active = line.root.id;
        }
        if (active) this.box.setAttribute("aria-activedescendant", active);
        else this.box.removeAttribute("aria-activedescendant");
    }
}
