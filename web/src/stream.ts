// The one connection of the page. EventSource comes back by itself after a break, but not after a
// refusal (too many pages, a token that is gone), so that is done here.

export type Handler = (name: string, data: unknown) => void;

const NAMES = ["status", "events", "instruments", "book", "trades", "chart"];
const RETRY_MS = 2000;
const SILENCE_MS = 5000; // the status comes every second

export class Stream {
    private source: EventSource | null = null;
    private retry = 0;
    private heard = 0;
    private connected = false;

    constructor(
        private readonly handler: Handler,
        private readonly onConnected: (connected: boolean) => void,
    ) {
        setInterval(() => {
            if (this.connected && performance.now() - this.heard > SILENCE_MS) {
                this.lose();
                this.reopen();
            }
        }, 1000);
    }

    private parameters = "";

    open(instrument: string, query: string): void {
        const parameters = new URLSearchParams({ instrument, q: query, limit: "150" });
        this.parameters = parameters.toString();
        this.reopen();
    }

    private reopen(): void {
        clearTimeout(this.retry);
        this.source?.close();
        const source = new EventSource(`api/stream?${this.parameters}`);
        this.source = source;
        for (const name of NAMES) {
            source.addEventListener(name, (event) => {
                this.heard = performance.now();
                if (!this.connected) {
                    this.connected = true;
                    this.onConnected(true);
                }
                this.handler(name, JSON.parse((event as MessageEvent<string>).data));
            });
        }
        source.onerror = () => {
            this.lose();
            clearTimeout(this.retry);
            source.close();
            this.retry = window.setTimeout(() => this.reopen(), RETRY_MS);
        };
    }

    private lose(): void {
        if (this.connected) {
            this.connected = false;
        }
        this.onConnected(false);
    }
}
