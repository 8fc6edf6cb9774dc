// The views of devices, channels and history.
import { h, row, table } from "./dom.js";
import { eventList } from "./events.js";
import { ask, asKnown, isCurrent, now, on, store } from "./store.js";
import { classOf, levelText, nameOf, span, timeText } from "./text.js";

// Shows what load() returns. Refreshes it periodically, and when one of the kinds of event happens.
function keep(main, title, kinds, pace, load) {
    const body = h("div", {});
    let over = false;
    let due = 0;
    async function refresh() {
        try {
            const parts = await load();
            if (!over) {
                body.replaceChildren(...parts);
            }
        } catch (error) {
            body.replaceChildren(h("p", { className: "empty" }, `Can't be shown: ${error.message}`));
        }
    }
    const ends = kinds.map((kind) => on(kind, () => {
        clearTimeout(due);
        due = setTimeout(refresh, 200);
    }));
    const timer = setInterval(refresh, pace);
    main.replaceChildren(h("h1", {}, title), body);
    refresh();
    return () => { over = true; ends.forEach((end) => end()); clearInterval(timer); clearTimeout(due); };
}

function deviceState({ missing, since }) {
    if (!store.board?.link.up) {
        return "not known";
    }
    return missing ? `\u25b2 no answer for ${span(now() - since)}` : "answers";
}

// Thousands of addresses are shown when asked for.
function addressList(addresses) {
    const text = addresses.join(", ");
    return addresses.length <= 8 ? text : h("details", {}, h("summary", {}, `${addresses.length} addresses`), text);
}

// How many answers came within which time, as bars with a text for those who can't see them.
function answerBars(times, bounds) {
    const all = times.reduce((sum, count) => sum + count, 0);
    if (!all) {
        return "";
    }
    const names = [...bounds.map((bound) => `up to ${bound} ms`), `more than ${bounds.at(-1)} ms`];
    const text = times.map((count, i) => (count ? `${names[i]}: ${count}` : "")).filter(Boolean).join(", ");
    return h("span", { className: "bars", role: "img", title: text, "aria-label": text }, ...times.map((count) =>
        h("i", { style: `height: ${count ? Math.max(10, 100 * count / all) : 0}%` })));
}

// Reads that a device did not answer. Some are lost when it restarts; a share that grows is a fault.
function lossText({ answers, missed }) {
    const share = 100 * missed / (answers + missed);
    return answers + missed ? `${missed} of ${answers + missed}${missed ? ` (${share < 10 ? share.toFixed(1) : Math.round(share)} %)` : ""}` : "";
}

function writers() {
    const found = new Map();
    for (const { pin, write } of store.pins.values()) {
        if (write) {
            const one = found.get(write.by) ?? { at: 0, pins: 0, last: pin };
            found.set(write.by, { at: Math.max(one.at, write.at), pins: one.pins + 1, last: write.at >= one.at ? pin : one.last });
        }
    }
    return [...found];
}

export function showDevices(main) {
    return keep(main, "Devices", ["device", "status"], 2000, async () => {
        const { devices, bounds_ms: bounds } = await ask("api/v1/devices");
        return [devices.length ? table("Devices", ["Device", "State", "Last heard", "Answers in", "Reads missed", "Addresses"], devices.map((device) =>
            row("", device.host, h("span", { className: device.missing ? "mark L" : "" }, deviceState(device)),
                store.board?.link.up && isCurrent() ? `${span(now() - device.heard)} ago` : timeText(device.heard),
                h("span", {}, device.answer_ms ? `${device.answer_ms.toFixed(1)} ms ` : "", answerBars(device.answer_times, bounds)), lossText(device), h("td", { className: "text" }, addressList(device.addresses)))))
            : h("p", { className: "empty" }, "No device has been heard yet."),
        h("h2", {}, "Hosts that write"),
        writers().length ? table("Hosts that write", ["Host", "Last write", "To", "Pins"], writers().map(([host, one]) =>
            row("", host, timeText(one.at), h("a", { href: `#/pin/${one.last}` }, nameOf(store.pins.get(one.last))), String(one.pins))))
            : h("p", { className: "empty" }, "Nobody has written yet.")];
    });
}

// The five pins of a channel as lamps. Of channels without an address, as the control server sent them.
function channelLamps({ address, output, input }, kind) {
    const sent = kind === "out" ? output : input;
    if (!address) {
        return sent;
    }
    return h("span", { className: "minis" }, ...[1, 2, 3, 4, 5].map((number) => {
        const pin = asKnown(store.pins.get(`${address}:${kind}${number}`) ?? { pin: `${address}:${kind}${number}`, level: null });
        return h("a", { className: `mini ${classOf(pin)}`, href: `#/pin/${pin.pin}`, title: `${nameOf(pin)}, ${levelText(pin.level)}`, "aria-label": `${nameOf(pin)}, ${levelText(pin.level)}` }, pin.level ?? "?");
    }));
}

export function showChannels(main) {
    return keep(main, "Channels of the control server", ["channel", "pin", "status"], 5000, async () => {
        const { address, problem, channels } = await ask("api/v1/channels");
        const groupOf = (channel) => store.groups.find((group) => group.address === channel.address);
        return [h("p", { className: "note" }, problem ? `${address}: ${problem}. Its channels are not known.` : `As sent by ${address}, read as by the daemon.`),
            table("Channels", ["Channel", "What drives its output", "Outputs", "Inputs"], channels.filter((one) => one.configured || one.output || one.input).map((one) =>
                row("", String(one.channel), h("td", { className: "text" }, one.meaning ?? "not configured", groupOf(one) ? ` (${groupOf(one).title || groupOf(one).name})` : ""),
                    channelLamps(one, "out"), channelLamps(one, "in"))))];
    });
}

export function showHistory(main, query) {
    const events = eventList("history", query);
    main.replaceChildren(h("h1", {}, "What happened"), events.element);
    const timer = setInterval(() => isCurrent() && scrollY < 50 && events.refresh(), 5000);
    return () => clearInterval(timer);
}
