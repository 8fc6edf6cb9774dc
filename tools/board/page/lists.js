// The views of devices, channels and history.
import { h, row, table } from "./dom.js";
import { eventRow } from "./pin.js";
import { ask, now, on, store } from "./store.js";
import { span, timeText } from "./text.js";

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

const answersText = ({ missing }) => (missing ? "\u25b2 does not answer" : store.board?.link.up ? "answers" : "not known");

export function showDevices(main) {
    return keep(main, "Devices", ["device", "status"], 2000, async () => {
        const { devices } = await ask("api/v1/devices");
        if (!devices.length) {
            return [h("p", { className: "empty" }, "No device has been heard yet.")];
        }
        return [table("Devices", ["Device", "State", "Last heard", "First heard", "Addresses", "Messages"], devices.map((device) =>
            row("", device.host, h("span", { className: device.missing ? "mark L" : "" }, answersText(device)),
                store.board?.link.up ? `${span(now() - device.heard)} ago` : timeText(device.heard), timeText(device.first), device.addresses.join(", "), String(device.messages))))];
    });
}

export function showChannels(main) {
    return keep(main, "Channels of the control server", ["channel"], 5000, async () => {
        const { address, problem, channels } = await ask("api/v1/channels");
        return [h("p", { className: "note" }, problem ? `${address}: ${problem}. The table is outdated.` : `As sent by ${address}, interpreted as by the daemon.`),
            table("Channels", ["Output", "Source", "What drives it", "Output pins", "Input pins"], channels.filter((one) => one.configured || one.output || one.input).map((one) =>
                row("", String(one.channel), one.source ?? "", h("td", { className: "text" }, one.meaning ?? "not configured"), one.output, one.input)))];
    });
}

export function showHistory(main) {
    const rows = [];
    const body = h("div", {});
    const more = h("button", { type: "button", on: { click: older } }, "Older");
    const until = h("input", { type: "datetime-local", on: { change: anew } });
    let before = "";
    function anew() {
        rows.length = 0;
        before = "";
        older();
    }
    async function older() {
        try {
            const to = until.value ? `&to=${new Date(until.value).getTime() + 59999}` : "";
            const answer = await ask(`api/v1/history?limit=200${to}${before}`);
            rows.push(...answer.events.map((event) => eventRow(event, true)));
            more.hidden = !answer.more;
            before = answer.events.length ? `&before=${answer.events.at(-1).id}` : before;
            body.replaceChildren(rows.length ? table("What happened", ["Time", "Pin", "Level", "What", "Who", "Notes"], rows)
                : h("p", { className: "empty" }, "Nothing has happened yet."));
        } catch (error) {
            body.replaceChildren(h("p", { className: "empty" }, `The history can't be read: ${error.message}`));
        }
    }
    main.replaceChildren(h("h1", {}, "What happened"),
        h("div", { className: "tools" }, h("button", { type: "button", on: { click: anew } }, "Refresh"), h("label", {}, "Up to ", until),
            h("a", { href: "api/v1/history?limit=10000&format=csv", download: "" }, "Download as CSV")), body, more);
    older();
    return () => {};
}
