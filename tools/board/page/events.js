// What happened, as a list with filters. The filters are part of the address, so that it can be kept and sent.
import { h } from "./dom.js";
import { ask, store } from "./store.js";
import { clockText, dayText, durationText, nameOf, span } from "./text.js";

const AT_ONCE = 200;
const FEW = 30; // with fewer rows, it looks further back by itself: the board searches a part at a time
const KINDS = [["", "everything"], ["told", "reports"], ["written", "writes on the bus"], ["set", "sets from a board"],
    ["device-missing", "devices that don't answer"], ["gap-begin", "gaps"], ["clock-set-back", "the clock set back"]];
const LEVELS = [["", "any level"], ["L", "low"], ["H", "high"]];

// A sentence about an event, for people.
function sentence({ kind, level, host = "", duration, text }) {
    const time = duration && kind !== "clock-set-back" ? ` for ${durationText(duration)}` : "";
    switch (kind) {
        case "told":
            return level ? `reported by ${host}` : `not known from here: ${text ?? "nobody told it"}`;
        case "written":
            return `written${time} by ${host}`;
        case "set":
            return text ? `${text} (set from a board by ${host})` : `set from a board${time} by ${host}`;
        case "device-first":
            return `${host} is heard for the first time`;
        case "device-missing":
            return `${host} does not answer any more`;
        case "device-back":
            return `${host} answers again`;
        case "device-forgotten":
            return `${host} is no longer expected to answer`;
        case "gap-begin":
            return `from here nothing is known: ${text}`;
        case "gap-end":
            return `until here nothing is known: ${text}`;
        case "clock-set-back":
            return `the clock was set back by ${span(duration)}: what is above happened later than what is below`;
        default:
            return [kind, host, text].filter(Boolean).join(" ");
    }
}

const MARKS = { written: "\u25bc", set: "\u25bc" };

function row(event, withPin) {
    const bulb = MARKS[event.kind] ? h("span", { className: "arrow" }, `${MARKS[event.kind]} ${event.level ?? ""}`)
        : event.kind === "told" ? h("span", { className: `mini ${event.level ?? "unknown"}` }, event.level ?? "?") : "";
    return h("tr", { className: event.pin ? event.kind : "note" },
        h("td", { className: "time" }, h("time", { dateTime: new Date(event.time).toISOString() }, clockText(event.time))),
        h("td", { className: "level" }, bulb),
        withPin ? h("td", { className: "pin" }, event.pin ? h("a", { href: `#/pin/${event.pin}` }, nameOf(event)) : "") : null,
        h("td", { className: "text" }, sentence(event)));
}

// A row for each day, and one for each event.
function rowsOf(events, withPin) {
    let day = "";
    return events.flatMap((event) => {
        const last = day;
        day = dayText(event.time);
        return [day === last ? null : h("tr", { className: "day" }, h("th", { colSpan: 4, scope: "rowgroup" }, day)), row(event, withPin)];
    }).filter(Boolean);
}

const choice = (label, options, value) => {
    const select = h("select", { "aria-label": label }, ...options.map(([key, text]) => h("option", { value: key }, text)));
    select.value = value;
    return select;
};

// route: the address of the view; given: its query. With a pin, only its events. The result has an element, and
// refresh().
export function eventList(route, given, pin = "") {
    const fields = {
        kind: choice("What", KINDS, given.get("kind") ?? ""),
        level: choice("Level", LEVELS, given.get("level") ?? ""),
        who: h("input", { type: "search", placeholder: "Who", "aria-label": "Who", value: given.get("who") ?? "" }),
        to: h("input", { type: "datetime-local", value: given.get("to") ?? "" }),
    };
    if (!pin) {
        const groups = [["", "all groups"], ...store.groups.map(({ name, title }) => [name, title || name])];
        fields.group = choice("Group", groups, given.get("group") ?? "");
        fields.pin = h("input", { type: "search", placeholder: "Pin", "aria-label": "Pin", value: given.get("pin") ?? "" });
    }
    const body = h("tbody", {});
    const note = h("p", { className: "empty", hidden: true });
    const more = h("button", { type: "button", hidden: true, on: { click: () => load(last) } }, "Older");
    const csv = h("a", { download: "" }, "Download as CSV");
    let events = [];
    let last = 0;
    let search = 0; // its number: answers to earlier ones are dropped
    let steps = 0; // of the search
    function query() {
        const parts = new URLSearchParams();
        Object.entries(fields).forEach(([name, field]) => field.value && parts.set(name, field.value));
        return parts;
    }
    function request(limit, before) {
        const parts = query();
        if (pin) {
            parts.set("pin", pin);
        }
        if (parts.has("to")) {
            parts.set("to", new Date(parts.get("to")).getTime() + 59999);
        }
        parts.set("limit", limit);
        return `api/v1/history?${parts}${before ? `&before=${before}` : ""}`;
    }
    async function load(before) {
        const mine = before ? search : ++search;
        steps = before ? steps + 1 : 1;
        try {
            const answer = await ask(request(AT_ONCE, before));
            if (mine !== search) {
                return;
            }
            events = before ? [...events, ...answer.events] : answer.events;
            last = answer.last;
            more.hidden = !answer.more;
            body.replaceChildren(...rowsOf(events, !pin));
            const goesOn = answer.more && events.length < FEW;
            note.textContent = goesOn ? "Looking further back." : "Nothing.";
            note.hidden = !goesOn && events.length > 0;
            if (goesOn && body.isConnected) {
                load(last);
            }
        } catch (error) {
            note.textContent = `The history can't be read: ${error.message}.`;
            note.hidden = false;
        }
        csv.href = `${request(10000)}&format=csv`;
    }
    let due = 0;
    const change = () => {
        const text = query().toString();
        history.replaceState(null, "", `#/${route}${text ? `?${text}` : ""}`);
        clearTimeout(due);
        due = setTimeout(load, 200);
    };
    Object.values(fields).forEach((field) => field.addEventListener("input", change));
    load();
    const { pin: pinField, group, kind, level, who, to } = fields;
    return {
        element: h("div", {},
            h("div", { className: "tools" }, ...[pinField, group, kind, level, who].filter(Boolean), h("label", {}, "Up to ", to), csv),
            h("table", { className: "events" }, h("thead", { className: "visually" }, h("tr", {}, ...["Time", "Level", ...(pin ? [] : ["Pin"]), "What happened"].map((head) => h("th", { scope: "col" }, head)))), body),
            note, more),
        // What took several steps is not searched again and again.
        refresh: () => steps === 1 && load(),
    };
}
