// Pins as lamps that fill the screen: /lamp/PIN or /lamp/PIN,PIN. In the query: color, a name or #rrggbb; on and off,
// the words; level=H for lamps that are lit when high; vibrate.
import { h } from "./dom.js";
import { asKnown, isCurrent, now, on, start, store } from "./store.js";
import { nameOf, span, timeText } from "./text.js";

const COLORS = { red: "#d90a0a", amber: "#ffb020", green: "#14b84b" };

const wanted = decodeURIComponent(location.pathname.slice(location.pathname.lastIndexOf("/") + 1)).split(",").filter(Boolean);
const query = new URLSearchParams(location.search);
const hint = document.getElementById("hint");
const litLevel = query.get("level") === "H" ? "H" : "L";
const words = { lit: query.get("on") ?? "ON", dark: query.get("off") ?? "OFF", unknown: "?" };

const find = (name) => store.pins.get(name) ?? [...store.pins.values()].find((pin) => pin.name === name) ?? { pin: name, level: null, state: "unknown" };

// A level that was only requested is not known: no device has confirmed it.
const lookOf = (pin) => (pin.state !== "told" || pin.level === null ? "unknown" : pin.level === litLevel ? "lit" : "dark");

function unknownText(pin) {
    if (store.mustLogIn) {
        return "log in on the board to see it";
    }
    if (!isCurrent()) {
        return store.since ? `the board can't be reached since ${timeText(store.since)}` : "the board can't be reached";
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

function makeLamp(name) {
    const parts = [h("p", { className: "word", role: "status" }), h("h1", {}), h("p", { className: "since" })];
    const element = h("section", { className: "unknown" }, ...parts);
    let shown = "";
    const show = () => {
        const pin = asKnown(find(name));
        const look = lookOf(pin);
        const texts = [words[look], nameOf(pin), look === "unknown" ? unknownText(pin) : span(now() - pin.since) + sharedText(pin)];
        parts.forEach((part, i) => part.textContent !== texts[i] && (part.textContent = texts[i]));
        element.className = look;
        if (shown && shown !== look && query.has("vibrate")) {
            navigator.vibrate?.(look === "unknown" ? [100, 100, 100] : 300);
        }
        shown = look;
    };
    return { name, element, show };
}

const lamps = wanted.map(makeLamp);
const showAll = () => lamps.forEach(({ show }) => show());

// Browsers keep the screen on only where the page came over HTTPS, and only while it is visible.
async function stayAwake() {
    try {
        await navigator.wakeLock.request("screen");
    } catch {
        if (!document.hidden) {
            hint.textContent = "The screen may switch itself off: browsers keep it on for pages over HTTPS only. Touch for full screen.";
            hint.hidden = false;
        }
    }
}

// Letters on bright colours are black.
function setColor(name) {
    const lit = /^#[0-9a-f]{6}$/i.test(name) ? name : COLORS[name] ?? COLORS.red;
    const [red, green, blue] = [1, 3, 5].map((i) => (parseInt(lit.slice(i, i + 2), 16) / 255) ** 2.2);
    const bright = 0.2126 * red + 0.7152 * green + 0.0722 * blue > 0.18;
    document.documentElement.style.setProperty("--lit", lit);
    document.documentElement.style.setProperty("--on-lit", bright ? "#000" : "#fff");
}

setColor(query.get("color"));
// All words have one size, so that nothing moves when a lamp changes.
document.documentElement.style.setProperty("--letters", Math.max(3, words.lit.length, words.dark.length));
document.title = `${wanted.join(", ")} \u2013 lamp`;
document.getElementById("lamps").append(...lamps.map(({ element }) => element));
document.addEventListener("click", () => {
    hint.hidden = true;
    document.documentElement.requestFullscreen?.().catch(() => {});
});
document.addEventListener("visibilitychange", stayAwake);
for (const kind of ["pin", "new"]) {
    on(kind, (pin) => lamps.filter(({ name }) => name === pin.pin || name === pin.name).forEach(({ show }) => show()));
}
["pins", "status"].forEach((kind) => on(kind, showAll));
setInterval(showAll, 1000);
showAll();
stayAwake();
start();
