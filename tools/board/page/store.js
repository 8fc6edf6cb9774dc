// The data from the board, kept up to date by its stream.
import { follow } from "./follow.js";

const SILENT_FOR = 15000; // ms; the stream itself ends earlier
const AGAIN_IN = 3000;
const WORKER_TIME = 3000; // for its first answer

export const store = {
    pins: new Map(), groups: [], board: null, allowSet: false,
    me: null,           // who this is, if the board has users
    mustLogIn: false,   // to see anything
    offset: 0,          // the board's clock minus this one
    state: "connecting", // live, lost
    reason: "",         // why it is lost, if the board says so
    since: 0,           // when it was last live
};

const listeners = new Map();
let close = null; // ends the stream
let port = null; // of the worker that has it, if it is shared
let open = false; // it is connected
let heard = 0;
let waiting = null; // events that came while all pins were being loaded

// kind: "pin" or "new" (with the pin), "pins" (all have changed), "status", "device", "channel", "wall". Returns a
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
    const response = await fetch(new URL(path, import.meta.url), { signal: AbortSignal.timeout(10000) });
    const body = await response.json();
    if (!response.ok) {
        throw new Error(body.error ?? response.statusText);
    }
    return body;
}

function become(state, reason = "") {
    if (store.state !== state || store.reason !== reason) {
        store.state = state;
        store.reason = reason;
        tell("status");
    }
}

const takers = {
    pin(data) {
        const isNew = !store.pins.has(data.pin);
        store.pins.set(data.pin, data);
        tell(isNew ? "new" : "pin", data);
    },
    board(data) {
        store.board = data;
        tell("status");
    },
    wall(data) { tell("wall", data); },
    beat(data) { store.offset = data.now - Date.now(); },
    device(data) { tell("device", data); },
    channel(data) { tell("channel", data); },
    reload() { load(); },
};

function take(event) {
    heard = Date.now();
    if (event.name === "open") {
        open = true;
        load();
    } else if (event.name === "lost") {
        open = false;
        waiting = null; // what is being loaded may miss something
        store.mustLogIn = event.mustLogIn ?? false;
        if (store.mustLogIn) {
            Object.assign(store, { pins: new Map(), groups: [], board: null, me: null });
        }
        become("lost", event.reason);
    } else if (waiting) {
        waiting.push(event);
    } else if (store.state === "live") {
        store.since = heard;
        takers[event.name]?.(event.data);
    }
}

const numberOf = (id) => Number(id.slice(id.lastIndexOf("-") + 1));
const runOf = (id) => id.slice(0, id.lastIndexOf("-"));

// All pins, then what has happened since. The stream must be connected before, so that nothing is missed.
async function load() {
    if (waiting) {
        return;
    }
    const mine = [];
    waiting = mine;
    try {
        const all = await ask("api/v1/pins");
        if (waiting !== mine) {
            return;
        }
        store.offset = all.now - Date.now();
        store.groups = all.groups;
        store.board = all.board;
        store.allowSet = all.allow_set;
        store.me = all.me ?? null;
        store.mustLogIn = false;
        store.pins = new Map(all.pins.map((pin) => [pin.pin, pin]));
        const later = waiting.filter(({ id }) => runOf(id) !== runOf(all.stream) || numberOf(id) > numberOf(all.stream));
        waiting = null;
        store.since = heard = Date.now();
        become("live");
        tell("pins");
        tell("status");
        later.forEach(take);
    } catch {
        if (waiting === mine) {
            waiting = null;
            become("lost");
            setTimeout(() => open && load(), AGAIN_IN);
        }
    }
}

// This page's own stream, while it is visible: hidden pages leave the connection to the others.
function followAlone() {
    let end = null;
    const change = () => {
        end?.abort();
        end = document.hidden ? null : new AbortController();
        if (end) {
            const { signal } = end;
            follow((event) => signal.aborted || take(event), signal);
        } else {
            take({ name: "lost", reason: "" });
        }
    };
    document.addEventListener("visibilitychange", change);
    change();
    return () => { end?.abort(); document.removeEventListener("visibilitychange", change); };
}

// One stream for all pages of the browser, where it has shared workers.
function followTogether() {
    const script = new URL("worker.js", import.meta.url).href;
    const policy = window.trustedTypes?.createPolicy("worker", { createScriptURL: () => script });
    const worker = new SharedWorker(policy?.createScriptURL("") ?? script, { type: "module", name: "stream 2" });
    const alone = () => { close(); close = followAlone(); };
    const late = setTimeout(alone, WORKER_TIME);
    worker.onerror = () => { clearTimeout(late); alone(); };
    port = worker.port;
    worker.port.onmessage = ({ data }) => { clearTimeout(late); take(data); };
    return () => {
        clearTimeout(late);
        worker.port.postMessage("closing");
        worker.port.close();
    };
}

function connect() {
    close?.();
    open = false;
    waiting = null;
    try {
        close = followTogether();
    } catch {
        close = followAlone();
    }
}

// With other rights, after logging in or out.
export function reconnect() {
    port?.postMessage("again");
    connect();
}

function look() {
    if (store.state === "live" && Date.now() - heard > SILENT_FOR) {
        become("lost");
        connect();
    }
}

export function start() {
    connect();
    setInterval(look, 1000);
    document.addEventListener("visibilitychange", look);
    addEventListener("pagehide", () => close());
    addEventListener("pageshow", (event) => event.persisted && connect());
}

// Whether what the pins say is current.
export const isCurrent = () => store.state === "live";

// A pin as far as it is known now; `was` is its last known level.
export const asKnown = (pin) => (isCurrent() ? pin : { ...pin, level: null, state: "unknown", was: pin.level });
