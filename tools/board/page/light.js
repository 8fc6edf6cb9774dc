// A pin as a lamp that fills its place: lit, dark, or neither, because it is not known.
import { h } from "./dom.js";
import { asKnown, isCurrent, now, on, store } from "./store.js";
import { nameOf, span, timeText } from "./text.js";

const COLORS = { red: "#d90a0a", amber: "#ffb020", green: "#14b84b" };

let byName = null; // name -> number
["pins", "new"].forEach((kind) => on(kind, () => { byName = null; }));

// The pin of that number or name.
export function find(name) {
    byName ??= new Map([...store.pins.values()].map((pin) => [pin.name, pin.pin]));
    return store.pins.get(name) ?? store.pins.get(byName.get(name)) ?? { pin: name, level: null, state: "unknown" };
}

// A level that was only requested is not known: no device has confirmed it.
const lookOf = (pin, lit) => (pin.state !== "told" || pin.level === null ? "unknown" : pin.level === lit ? "lit" : "dark");

function unknownText(pin) {
    if (store.mustLogIn) {
        return "log in on the board to see it";
    }
    if (!isCurrent()) {
        return store.state === "connecting" ? "connecting" : store.since ? `the board can't be reached since ${timeText(store.since)}` : "the board can't be reached";
    }
    if (!store.board?.link.up && pin.level === null) {
        return "the bus can't be heard";
    }
    return pin.state === "written" ? `${pin.level} requested, not confirmed` : pin.heard ? `not known for ${span(now() - pin.since)}` : "never heard";
}

// With two devices of the same address, a lamp shows what the last one said.
function sharedText(pin) {
    const address = `${pin.pin.slice(0, pin.pin.lastIndexOf(":"))} `;
    const text = store.board?.shared?.find((one) => one.startsWith(address));
    return text && isCurrent() ? `. ${text}` : "";
}

// Letters on bright colours are black.
function paint(element, name) {
    const lit = /^#[0-9a-f]{6}$/i.test(name) ? name : COLORS[name] ?? COLORS.red;
    const [red, green, blue] = [1, 3, 5].map((i) => (parseInt(lit.slice(i, i + 2), 16) / 255) ** 2.2);
    const bright = 0.2126 * red + 0.7152 * green + 0.0722 * blue > 0.18;
    element.style.setProperty("--lit", lit);
    element.style.setProperty("--on-lit", bright ? "#000" : "#fff");
}

// wanted: {pin, label, color, level, on, off}, of which all but the pin may be absent: its label and colour, the level at
// which it is lit, the words for both. changed() is called with the look after each change of it.
export function makeLight({ pin: name, label, color, level = "L", on: lit = "ON", off: dark = "OFF" }, changed = () => {}) {
    const words = { lit, dark, unknown: "?" };
    const parts = [h("p", { className: "word", role: "status" }), h("h1", {}), h("p", { className: "since" })];
    const element = h("section", { className: "unknown" }, ...parts);
    let shown = "";
    paint(element, color);
    const show = () => {
        const pin = asKnown(find(name));
        const look = lookOf(pin, level);
        const texts = [words[look], label || nameOf(pin), look === "unknown" ? unknownText(pin) : span(now() - pin.since) + sharedText(pin)];
        parts.forEach((part, i) => part.textContent !== texts[i] && (part.textContent = texts[i]));
        if (element.className !== look) {
            element.className = look;
        }
        if (shown && shown !== look) {
            changed(look);
        }
        shown = look;
    };
    show();
    return { element, show, letters: Math.max(lit.length, dark.length), isOf: (pin) => name === pin.pin || name === pin.name };
}
