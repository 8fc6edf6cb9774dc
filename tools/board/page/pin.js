// The view of one pin: its state, its history, and setting it.
import { h } from "./dom.js";
import { eventList } from "./events.js";
import { askToSet } from "./set.js";
import { phoneCode } from "./share.js";
import { asKnown, now, on, store } from "./store.js";
import { classOf, durationText, levelText, nameOf, running, span, timeText } from "./text.js";
import { Timeline } from "./timeline.js";

let current = null;

for (const kind of ["pin", "new"]) {
    on(kind, (pin) => current?.name === pin.pin && current.show());
}
on("pins", () => current?.show());
on("status", () => current?.show());
setInterval(() => current?.show(), 500);

const STATES = { told: "told by a device", written: "requested, and not confirmed by a device", unknown: "not known" };

function facts(pin) {
    const time = now();
    const rows = [["Level", pin.level ? `${levelText(pin.level)} (${pin.level})` : "not known"], ["State", STATES[pin.state]]];
    if (pin.was) {
        rows.push(["Last known", `${levelText(pin.was)} (${pin.was}), at ${timeText(store.since + store.offset)}`]);
    } else if (pin.since && pin.was === undefined) {
        rows.push([pin.level ? "Since" : "Not known since", `${timeText(pin.since)} (${span(time - pin.since)})`]);
    }
    if (pin.heard) {
        rows.push(["Last told", `${timeText(pin.heard)}, by ${pin.by}`]);
    }
    if (pin.write) {
        const { level, duration, by, at } = pin.write;
        const left = running(pin, time);
        rows.push(["Last write", `${level}${duration ? ` for ${durationText(duration)}` : ""}, ${timeText(at)}, by ${by}` +
            (left ? `; ${(left / 1000).toFixed(1)} s left` : "")]);
    }
    if (pin.denied) {
        rows.push(["Note", "The device answers high, as it does for all outputs beyond channel 8, whatever their level: whether the write was carried out is not known."]);
    }
    return rows.flatMap(([term, text]) => [h("dt", {}, term), h("dd", {}, text)]);
}

export function showPin(main, name, query) {
    const pinNow = () => asKnown(store.pins.get(name) ?? { pin: name, level: null, state: "unknown", since: null });
    const bulb = h("span", { className: "bulb" });
    const list = h("dl", { className: "facts" });
    const heading = h("h1", {}, name);
    const buttons = h("div", { className: "tools" });
    const events = eventList(`pin/${name}`, query, name);
    const past = h("section", { className: "panel" }, h("h2", {}, "What happened"), events.element);
    const timeline = new Timeline(name);
    const setting = (level, duration, text) => h("button", { type: "button", on: { click: () => askToSet(pinNow(), level, duration) } }, text);
    let shown = "";
    function show() {
        const pin = pinNow();
        bulb.className = `bulb ${classOf(pin)}`;
        bulb.textContent = pin.level ?? "?";
        bulb.setAttribute("role", "img");
        bulb.setAttribute("aria-label", levelText(pin.level));
        heading.replaceChildren(nameOf(pin), nameOf(pin) === pin.pin ? "" : h("small", {}, pin.name && pin.name !== nameOf(pin) ? `${pin.name}, ${pin.pin}` : pin.pin));
        list.replaceChildren(...facts(pin));
        const key = JSON.stringify([pin.level, pin.state, pin.since, pin.write]);
        if (key !== shown) {
            shown = key;
            setTimeout(events.refresh, 150);
        }
    }
    const mine = !store.me?.set || store.me.set.includes(name);
    if (store.allowSet && mine && /:out\d$/.test(name)) {
        buttons.append(setting("L", "", "Set low\u2026"), setting("H", "", "Set high\u2026"), setting("L", 500, "Pulse\u2026"));
    }
    const ways = h("div", { className: "ways" }, h("a", { href: "#/" }, "\u2190 All pins"),
        h("a", { href: `lamp/${name}`, target: "_blank", rel: "noopener" }, "As a lamp that fills the screen"), phoneCode(`lamp/${name}`, "On a phone"));
    main.replaceChildren(ways, h("div", { className: "big" }, bulb, h("div", {}, heading, list)), buttons, timeline.element, past);
    current = { name, show };
    show();
    return () => { current = null; timeline.close(); };
}
