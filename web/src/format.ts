// Numbers and times as text.

export function element<T extends HTMLElement>(id: string): T {
    return document.getElementById(id) as T;
}

// Only what changes is touched, so that nothing flickers and a screen reader has rest.
export function setText(target: Element, text: string): void {
    if (target.textContent !== text) {
        target.textContent = text;
    }
}

export function decimalsOf(prices: (number | null)[]): number {
    for (let decimals = 0; decimals < 4; ++decimals) {
        const scale = 10 ** decimals;
        if (prices.every((p) => p === null || Math.abs(p * scale - Math.round(p * scale)) < 1e-3)) {
            return decimals;
        }
    }
    return 4;
}

export function price(value: number | null, decimals: number): string {
    return value === null || !Number.isFinite(value) ? "–" : value.toFixed(decimals);
}

const whole = new Intl.NumberFormat("en", { maximumFractionDigits: 0 });
export function count(value: number): string {
    return whole.format(value);
}

export function short(value: number): string {
    if (value >= 1e6) return `${(value / 1e6).toFixed(2)}M`;
    if (value >= 1e4) return `${(value / 1e3).toFixed(1)}k`;
    return whole.format(value);
}

// In whole seconds.
export function duration(milliseconds: number): string {
    const seconds = Math.max(0, Math.round(milliseconds / 1000));
    return seconds < 60 ? `${seconds} s` : span(seconds);
}

export function span(seconds: number | null): string {
    if (seconds === null) return "–";
    if (seconds < 1) return `${Math.round(seconds * 1000)} ms`;
    if (seconds < 60) return `${seconds.toFixed(1)} s`;
    if (seconds < 3600) return `${Math.floor(seconds / 60)} m ${Math.floor(seconds % 60)} s`;
    return `${Math.floor(seconds / 3600)} h ${Math.floor((seconds % 3600) / 60)} m`;
}

export function clock(time_ns: number, parts = false): string {
    const date = new Date(time_ns / 1e6);
    const pad = (n: number, width = 2) => String(n).padStart(width, "0");
    const text = `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}`;
    return parts ? `${text}.${pad(date.getMilliseconds(), 3)}` : text;
}
