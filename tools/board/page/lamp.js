// Lamps that fill the screen: /lamp/PIN,PIN, /wall?group=GROUP,GROUP or /wall/NAME. In the query: color, a name or
// #rrggbb; on and off, the words; level=H for lamps that are lit when high; size, the lamps in a row; vibrate.
import { h } from "./dom.js";
import { find, makeLight } from "./light.js";
import { ask, isCurrent, on, start, store } from "./store.js";
import { nameOf, rankOf } from "./text.js";

const MOST = 400; // lamps of a wall
const HINT_FOR = 60000; // ms that a hint covers a wall that nobody touches
const SHAPE = 1.6; // width by height of a lamp that is easy to read

const root = new URL(".", import.meta.url);
const path = location.pathname.slice(root.pathname.length); // "lamp/PIN", "wall" or "wall/NAME"
const name = decodeURIComponent(path.slice(path.indexOf("/") + 1));
const query = new URLSearchParams(location.search);
const main = document.getElementById("lamps");
const hint = document.getElementById("hint");

const given = Object.fromEntries(["color", "level", "on", "off"].filter((key) => query.has(key)).map((key) => [key, query.get(key)]));
let size = Number(query.get("size")) || 0;
let lights = [];

// ---- which lamps ----

// The pins of groups, given by names or addresses. Those without a name of their own are left out if others have one.
function pinsOf(groups) {
    const isIn = (pin) => !groups.length || groups.includes(pin.group) || groups.includes(pin.pin.slice(0, pin.pin.lastIndexOf(":")));
    const all = [...store.pins.values()].filter(isIn).sort((a, b) => rankOf(a.pin) - rankOf(b.pin));
    const named = all.filter((pin) => pin.title || (pin.name && !pin.name.includes(":")));
    return named.length ? named : all;
}

function showMessage(reason) {
    const text = isCurrent() ? reason : store.mustLogIn ? "Log in on the board to see it" : store.state === "lost" ? "The board can't be reached" : "Connecting";
    lights = [];
    main.replaceChildren(h("section", { className: "unknown message" }, h("p", { className: "word" }, "?"), h("h1", {}, text)));
    fit();
}

function vibrate(look) {
    navigator.vibrate?.(look === "unknown" ? [100, 100, 100] : 300);
}

function showLamps(wanted, title) {
    document.title = `${title} \u2013 lamp`;
    const key = JSON.stringify(wanted);
    if (main.dataset.key !== key || !lights.length) {
        main.dataset.key = key;
        lights = wanted.map((one) => makeLight(one, query.has("vibrate") ? vibrate : undefined));
        main.replaceChildren(...lights.map(({ element }) => element));
        // All words have one size, so that nothing moves when a lamp changes.
        main.style.setProperty("--letters", Math.max(3, ...lights.map(({ letters }) => letters)));
        fit();
    }
    showAll();
}

const showAll = () => lights.forEach(({ show }) => show());

function showGroup() {
    const groups = (query.get("group") ?? "").split(",").filter(Boolean);
    const pins = pinsOf(groups);
    if (pins.length) {
        showLamps(pins.slice(0, MOST).map(({ pin }) => ({ pin, ...given })), groups.join(", ") || "all pins");
        tellHint("many", pins.length > MOST ? `${MOST} of ${pins.length} pins: choose a group in the address (?group=).` : "");
    } else {
        showMessage("No pin is in this group");
    }
}

async function showWall() {
    try {
        const wall = await ask(`api/v1/walls/${encodeURIComponent(name)}`);
        size = Number(query.get("size")) || wall.size;
        showLamps(wall.lamps.map((lamp) => ({ ...given, ...lamp })), wall.title || wall.name);
    } catch (error) {
        if (!lights.length || isCurrent()) {
            showMessage(`${name}: ${error.message}`);
        }
    }
}

const isWall = path.startsWith("wall/") && name;
const build = path.startsWith("lamp/") ? () => {
    const pins = name.split(",").filter(Boolean);
    if (!pins.length) {
        showMessage("No pin is in the address (/lamp/PIN)");
        return;
    }
    showLamps(pins.map((pin) => ({ pin, ...given })), pins.map((pin) => nameOf(find(pin))).join(", "));
} : isWall ? showWall : showGroup;

// ---- the screen ----

// As many in a row as make them largest.
function fit() {
    const count = main.children.length;
    const sizeOf = (columns) => Math.min(innerWidth / columns / SHAPE, innerHeight / Math.ceil(count / columns));
    let best = 1;
    for (let columns = 2; columns <= count; ++columns) {
        best = sizeOf(columns) > sizeOf(best) ? columns : best;
    }
    main.style.setProperty("--columns", size > 0 ? Math.min(size, count) : best);
    main.classList.toggle("many", count > 3);
}

const hints = new Map();
function tellHint(kind, text) {
    text ? hints.set(kind, text) : hints.delete(kind);
    hint.textContent = [...hints.values()].join(" ");
    hint.hidden = hints.size === 0;
}

// Browsers keep the screen on only where the page came over HTTPS, and only while it is visible.
async function stayAwake() {
    try {
        await navigator.wakeLock.request("screen");
        tellHint("awake", "");
    } catch {
        if (!document.hidden) {
            tellHint("awake", isSecureContext ? "The screen may switch itself off: this browser does not keep it on."
                : "The screen may switch itself off: browsers keep it on for pages over HTTPS only.");
            setTimeout(() => tellHint("awake", ""), HINT_FOR);
        }
    }
}

function touch() {
    hints.clear();
    tellHint("touch", "");
    document.documentElement.requestFullscreen?.().catch(() => {});
    stayAwake().then(() => { hint.hidden = true; });
}

// Makes this page an app that can be installed.
function offerApp() {
    const page = encodeURIComponent(path + location.search);
    const title = encodeURIComponent(document.title.replace(/ \u2013 lamp$/, ""));
    document.head.append(h("link", { rel: "manifest", href: new URL(`manifest?page=${page}&name=${title}`, root).href }));
}

if (query.has("vibrate")) {
    tellHint("touch", navigator.vibrate ? "Touch once, so that the browser lets it vibrate." : "This browser can't vibrate.");
}
document.addEventListener("click", touch);
document.addEventListener("visibilitychange", stayAwake);
addEventListener("resize", fit);
on("pin", (pin) => lights.filter(({ isOf }) => isOf(pin)).forEach(({ show }) => show()));
let due = 0;
const buildSoon = () => { clearTimeout(due); due = setTimeout(build, 100); };
on("new", (pin) => (path === "wall" ? buildSoon() : lights.filter(({ isOf }) => isOf(pin)).forEach(({ show }) => show())));
on("wall", (wall) => isWall && wall.name === name && build());
on("status", () => (lights.length ? showAll() : build()));
let installable = false;
on("pins", async () => {
    showAll();
    await build();
    installable ||= (offerApp(), true);
});
setInterval(showAll, 1000);
build();
stayAwake();
start();
