// Chooses the view by the address, and shows whether the data can be relied on.
import { showDays } from "./days.js";
import { h } from "./dom.js";
import { showLamps } from "./lamps.js";
import { showChannels, showDevices, showHistory } from "./lists.js";
import { showPin } from "./pin.js";
import "./login.js";
import { on, start, store } from "./store.js";
import { timeText } from "./text.js";
import { showEditor, showWalls } from "./walls.js";

const main = document.getElementById("main");
const banner = document.getElementById("banner");
const status = document.getElementById("status");
const VIEWS = { "": showLamps, devices: showDevices, channels: showChannels, history: showHistory, days: showDays, walls: showWalls };
let close = null;
let shown = null;
let first = true; // nothing has been loaded yet
let hidden = false;

function navigate() {
    if (store.mustLogIn || (location.hash !== "" && !location.hash.startsWith("#/"))) {
        return;
    }
    const [path, text] = location.hash.replace(/^#\//, "").split("?");
    const route = decodeURIComponent(path);
    const query = new URLSearchParams(text);
    close?.();
    close = route.startsWith("pin/") ? showPin(main, route.slice(4), query)
        : route.startsWith("wall/") ? showEditor(main, route.slice(5)) : (VIEWS[route] ?? showLamps)(main, query);
    for (const link of document.querySelectorAll("nav a")) {
        link.getAttribute("href") === `#/${route.startsWith("wall/") ? "walls" : route}` ? link.setAttribute("aria-current", "page") : link.removeAttribute("aria-current");
    }
    document.title = route ? `${route.replace(/^pin\//, "")} \u2013 orvex board` : "orvex board";
    if (shown !== null && shown !== route) {
        main.focus({ preventScroll: true });
        scrollTo(0, 0);
    }
    shown = route;
}

function troubles() {
    const { board } = store;
    const found = [];
    if (store.state === "lost" && !store.mustLogIn) {
        found.push((store.reason ? `The board refuses to send what happens: ${store.reason}.` : "The board can't be reached.") +
            ` ${store.since ? `Since ${timeText(store.since)}` : "So far"} no level is known. Trying again.`);
    }
    if (board && !board.link.up) {
        found.push(`The bus can't be heard (${board.link.problem}): levels are not known.`);
    }
    if (board?.left_out) {
        found.push(`Not all is shown: ${board.left_out}.`);
    }
    found.push(...(board?.shared ?? []));
    if (board?.history.problem) {
        found.push(`The history is not written: ${board.history.problem}`);
    }
    const notice = board?.history.notice;
    if (notice && notice !== sessionStorage.getItem("read")) {
        found.push(`A new history was started: ${notice}`);
    }
    if (board?.control?.problem) {
        found.push(`The control server ${board.control.address} is away: ${board.control.problem}`);
    }
    return found;
}

function hideNotice() {
    sessionStorage.setItem("read", store.board.history.notice);
    showStatus();
    main.focus({ preventScroll: true });
}

// What was loaded before is not for whoever comes after a logout.
function hideAll() {
    if (store.mustLogIn && !hidden) {
        close?.();
        close = null;
        first = true;
        main.replaceChildren(h("p", { className: "empty" }, "Log in to see what is on this board."));
    }
    hidden = store.mustLogIn;
}

let told = "";
function showStatus() {
    const found = troubles();
    const text = found.join("\n");
    if (text !== told) {
        told = text;
        banner.replaceChildren(...found.map((line) => h("p", {}, line)));
        if (text.includes("A new history")) {
            banner.append(h("button", { type: "button", on: { click: hideNotice } }, "Hide"));
        }
        banner.hidden = found.length === 0;
    }
    const live = store.state === "live" && store.board?.link.up;
    status.className = live ? "status" : "status bad";
    status.textContent = store.mustLogIn ? "logged out" : store.state === "live" ? (live ? "live" : "no bus") : store.state;
    hideAll();
    document.querySelector('nav a[href="#/channels"]').hidden = !store.board?.control;
}

document.addEventListener("keydown", (event) => {
    const typing = event.target.closest("input, select, textarea, dialog");
    if (event.key === "/" && !typing) {
        event.preventDefault();
        if (!document.getElementById("search")) {
            history.pushState(null, "", "#/");
            navigate();
        }
        document.getElementById("search").focus();
    }
});
document.querySelector(".skip").addEventListener("click", (event) => { event.preventDefault(); main.focus(); });
addEventListener("hashchange", navigate);
on("status", showStatus);
setInterval(showStatus, 1000);
on("pins", () => {
    if (first) {
        first = false;
        navigate();
    }
});
start();
