// What the server sends; docs/serve.md tells of all of it. Times are nanoseconds since the epoch.

export type Phase = "stopped" | "bring_up" | "snapshot" | "replay" | "live" | "unknown";

export interface Status {
    bus: string;
    state: string;
    problem: string | null;
    time_ns: number;
    phase: Phase;
    phase_since_ns: number | null;
    age_s: number | null;
    updates_per_s: number;
    frames_per_s: number;
    writer: { pid: number; generation: number; heartbeat_age_s: number } | null;
    counters: Record<string, number> | null;
}

export interface FeedEvent {
    id: number;
    time_ns: number;
    kind: string;
    phase: Phase;
    previous_phase?: Phase;
    inst_id?: string;
    expected?: number;
    received?: number;
    count?: number;
    feed?: string;
    generation?: number;
}

export interface Row {
    slot: number;
    inst_id: string;
    exchange: string;
    last_px: number | null;
    volume: number;
    updates: number;
    bid_px: number | null;
    ask_px: number | null;
}

export interface Level {
    price: number;
    volume: number;
}

export interface Book {
    inst_id: string;
    exchange: string;
    time_ns: number;
    change_no: number;
    last_px: number;
    volume: number;
    open_interest: number;
    highest_price: number;
    lowest_price: number;
    bids: Level[];
    asks: Level[];
}

export interface Trade {
    id: number;
    time_ns: number;
    price: number;
    volume: number;
    side: "buy" | "sell" | null;
}

export interface Samples {
    inst_id: string;
    time_ns: number[];
    last: (number | null)[];
    bid: (number | null)[];
    ask: (number | null)[];
}
