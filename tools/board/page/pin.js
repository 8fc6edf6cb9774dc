// The view of one pin: its state, its history, and setting it.
import { h, row, table } from "./dom.js";
import { askToSet } from "./set.js";
import { ask, asKnown, now, on, store } from "./store.js";
import { classOf, kindText, levelText, nameOf, running, span, timeText } from "./text.js";
import { Timeline } from "./timeline.js";

let current = null;

for (const kind of ["pin", "new"]) {
    on(kind, (pin) => current?.name === pin.pin && current.show());
}
on("pins", () => current?.show());
on("status", () => current?.show());
setInterval(() => current?.show(), 500);

function stateText(pin) {
    const states = {
        told: "told by a device",
        written: "written, and not confirmed by a device since",
    };
    return states[pin.state];
}

function facts(pin) {
    const time = now();
    const rows = [["Level", pin.level ? `${levelText(pin.level)} (${pin.level}), ${stateText(pin)}` : "not known"]];
    if (pin.was) {
        rows.push(["Last known", `${levelText(pin.was)}, at ${timeText(store.since + store.offset)}`]);
    } else if (pin.level) {
        rows.push(["Since", `${timeText(pin.since)}, ${span(time - pin.since)} ago`]);
    }
    if (pin.heard) {
        rows.push(["Told by", pin.level ? pin.by : `${pin.by}, last at ${timeText(pin.heard)}`]);
    }
    if (pin.write) {
        const { level, duration, by, at } = pin.write;
        const left = running(pin, time);
        rows.push(["Last write", `${level}${duration ? ` for ${duration} ms` : ""} by ${by}, ` +
            (pin.was === undefined ? `${span(time - at)} ago` : `at ${timeText(at)}`) +
            (left ? `, ${(left / 1000).toFixed(1)} s left` : "")]);
        if (pin.denied) {
            rows.push(["Note", "The device answers high, as it does for all outputs beyond channel 8, whatever their level: whether the write was carried out is not known."]);
        }
    }
    return rows.flatMap(([term, text]) => [h("dt", {}, term), h("dd", {}, text)]);
}

function noteOf(event) {
    if (event.kind === "clock-set-back") {
        return `by ${span(event.duration)}: the rows above are later than those below`;
    }
    return event.text ?? (event.kind === "told" && !event.level ? "not known from here" : "");
}

export function eventRow(event, withPin) {
    const gap = event.kind.startsWith("gap") || event.kind === "clock-set-back";
    const level = event.level ? h("span", { className: `mark ${event.level}` }, event.level + (event.duration ? ` for ${event.duration} ms` : "")) : "";
    const pin = withPin && event.pin ? h("a", { href: `#/pin/${event.pin}` }, event.title || event.name || event.pin) : "";
    return row(gap ? "gap" : "", timeText(event.time), ...(withPin ? [pin] : []), level, kindText(event.kind),
        event.host ?? "", h("td", { className: "text" }, noteOf(event)));
}

export function showPin(main, name) {
    const pinNow = () => asKnown(store.pins.get(name) ?? { pin: name, level: null, state: "unknown", since: null });
    const bulb = h("span", { className: "bulb" });
    const list = h("dl", { className: "facts" });
    const heading = h("h1", {}, name);
    const buttons = h("div", { className: "tools" });
    const past = h("section", { className: "panel" });
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
            setTimeout(showPast, 150);
        }
    }
    async function showPast() {
        try {
            const answer = await ask(`api/v1/history?pin=${encodeURIComponent(name)}&limit=100`);
            past.replaceChildren(h("h2", {}, "What happened"),
                answer.events.length ? table("What happened to the pin", ["Time", "Level", "What", "Who", "Notes"], answer.events.map((event) => eventRow(event, false)))
                    : h("p", { className: "empty" }, "Nothing yet."),
                h("p", {}, h("a", { href: `api/v1/history?pin=${encodeURIComponent(name)}&limit=10000&format=csv`, download: "" }, "Download as CSV")));
        } catch (error) {
            past.replaceChildren(h("p", { className: "empty" }, `The history can't be read: ${error.message}`));
        }
    }
    if (store.allowSet && /:out\d$/.test(name)) {
        buttons.append(setting("L", "", "Set low\u2026"), setting("H", "", "Set high\u2026"), setting("L", 500, "Pulse\u2026"));
    }
    main.replaceChildren(h("p", {}, h("a", { href: "#/" }, "\u2190 All pins")), h("div", { className: "big" }, bulb, heading), list, buttons, timeline.element, past);
    current = { name, show };
    show();
    return () => { current = null; timeline.close(); };
}
