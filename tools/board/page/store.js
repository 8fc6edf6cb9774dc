// The data from the board, kept up to date by its stream.

const SILENT_FOR = 12000; // ms; the board sends a beat every 5 s
const AGAIN_IN = 3000;

export const store = {
    pins: new Map(), groups: [], board: null, allowSet: false,
    offset: 0,          // the board's clock minus this one
    state: "connecting", // live, lost
    since: 0,           // when it was last live
    channels: new Map(), devices: new Map(),
};

const listeners = new Map();
let source = null;
let heard = 0;
let loading = false;

// kind: "pin" or "new" (with the pin), "pins" (all have changed), "status", "device", "channel". Returns a
// function that unsubscribes.
export function on(kind, listener) {
    const all = listeners.get(kind) ?? new Set();
    listeners.set(kind, all.add(listener));
    return () => all.delete(listener);
}

function tell(kind, value) {
    for (const listener of listeners.get(kind) ?? []) {
        listener(value);
    }
}

export const now = () => Date.now() + store.offset;

export async function ask(path) {
    const response = await fetch(path, { signal: AbortSignal.timeout(10000) });
    const body = await response.json();
    if (!response.ok) {
        throw new Error(body.error ?? response.statusText);
    }
    return body;
}

function become(state) {
    if (state === "live") {
        heard = Date.now();
        store.since = heard;
    }
    if (store.state !== state) {
        store.state = state;
        tell("status");
    }
}

async function load() {
    if (loading) {
        return;
    }
    loading = true;
    source?.close();
    source = null;
    try {
        const all = await ask("/api/v1/pins");
        store.offset = all.now - Date.now();
        store.groups = all.groups;
        store.board = all.board;
        store.allowSet = all.allow_set;
        store.pins = new Map(all.pins.map((pin) => [pin.pin, pin]));
        follow(all.stream);
        tell("pins");
        tell("status");
    } catch {
        become("lost");
        setTimeout(load, AGAIN_IN);
    } finally {
        loading = false;
    }
}

function follow(after) {
    source = new EventSource(`/api/v1/events?after=${encodeURIComponent(after)}`);
    const events = {
        pin(data) {
            const isNew = !store.pins.has(data.pin);
            store.pins.set(data.pin, data);
            tell(isNew ? "new" : "pin", data);
        },
        board(data) {
            store.board = data;
            tell("status");
        },
        beat(data) { store.offset = data.now - Date.now(); },
        device(data) { tell("device", data); },
        channel(data) { tell("channel", data); },
        reload() { load(); },
    };
    for (const [name, take] of Object.entries(events)) {
        source.addEventListener(name, (event) => {
            become("live");
            take(JSON.parse(event.data));
        });
    }
    source.onopen = () => become("live");
    source.onerror = () => {
        become("lost");
        if (source?.readyState === EventSource.CLOSED) {
            source = null;
            setTimeout(load, AGAIN_IN);
        }
    };
}

export function start() {
    load();
    setInterval(() => {
        if (store.state === "live" && Date.now() - heard > SILENT_FOR) {
            become("lost");
            load();
        }
    }, 1000);
}
