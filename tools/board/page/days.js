// How long and how often pins had a level, by day, and when. The choices stand in the address.
import { h, row, table } from "./dom.js";
import { ask, now, store } from "./store.js";
import { clockText, dayText, lengthText, levelText, momentText, nameOf, timeText } from "./text.js";

const PERIODS = [["1", "one day"], ["7", "7 days"], ["31", "31 days"]];
const LEVELS = [["L", "low"], ["H", "high"]];
const MOST_ROWS = 500; // shown; a download has all
const MOST_GAPS = 5;
const FEW_PARTS = 5; // of an answer, for the same reason
const PACE = 10000; // ms; a day that is not over goes on

const dateText = (time) => {
    const date = new Date(time);
    return [date.getFullYear(), date.getMonth() + 1, date.getDate()].map((part) => String(part).padStart(2, "0")).join("-");
};

// Where the days begin and end in this browser's time zone; they are not all equally long.
function boundsOf(day, count) {
    const [year, month, date] = day.split("-").map(Number);
    return Array.from({ length: count + 1 }, (_, i) => new Date(year, month - 1, date - count + 1 + i).getTime());
}

const choice = (label, options, value) => {
    const select = h("select", { "aria-label": label }, ...options.map(([key, text]) => h("option", { value: key }, text)));
    select.value = value;
    return select;
};

// Each answer of the board is bounded, and says where to go on: take() returns that. Returns it if the parts are not all.
async function askParts(path, parts, take) {
    let after = "";
    for (let i = 0; i < parts && after !== null; ++i) {
        after = await take(after ? `${path}&after=${encodeURIComponent(after)}` : path);
    }
    return after;
}

async function askList(path, key) {
    const list = [];
    let gaps = [];
    const next = await askParts(path, FEW_PARTS, async (part) => {
        const answer = await ask(part);
        list.push(...answer[key]);
        gaps = answer.gaps.length ? answer.gaps : gaps;
        return answer.next;
    });
    return { list, gaps, next };
}

async function download(path, file) {
    let text = "";
    await askParts(`${path}&format=csv`, Infinity, async (part) => {
        const response = await fetch(new URL(part, import.meta.url));
        const body = await response.text();
        text += text ? body.slice(body.indexOf("\n") + 1) : body;
        return response.headers.get("X-Orvex-Next");
    });
    const href = URL.createObjectURL(new Blob([text], { type: "text/csv" }));
    h("a", { href, download: file }).click();
    setTimeout(() => URL.revokeObjectURL(href), 60000);
}

const link = (pin) => h("a", { href: `#/pin/${pin.pin}` }, nameOf(pin));

// For each pin and day that had the level, or was not known for a time.
function sumTable({ list }, level, many) {
    const [name, count] = level === "L" ? ["low_ms", "became_low"] : ["high_ms", "became_high"];
    const word = levelText(level);
    const rows = list.flatMap((pin) => pin.days.filter((day) => day[name] || day[count]).map((day) =>
        row("", link(pin), ...(many ? [day.day] : []), h("td", { className: "number" }, lengthText(day[name])), h("td", { className: "number" }, String(day[count])),
            h("td", { className: "text" }, [day.unknown_ms >= 1000 ? `not known for ${lengthText(day.unknown_ms)}` : "", pin.complete ? "" : "too many changes: only the last were counted"].filter(Boolean).join("; ")))));
    return rows.length ? table("How long, how often", ["Pin", ...(many ? ["Day"] : []), `${word[0].toUpperCase()}${word.slice(1)} for`, `Became ${word}`, "Note"], rows)
        : h("p", { className: "empty" }, `No pin was ${word}, as far as is known.`);
}

// A change that was not seen has no time: the level was there before, or the pin was not known.
function endsOf(spell, from) {
    const at = (time) => `${clockText(time).slice(0, -4)}`;
    const begin = spell.from_known ? at(spell.from) : spell.from <= from ? "before" : `${at(spell.from)} or before`;
    const end = spell.to_known ? at(spell.to) : spell.to >= now() - 2 * PACE ? "still" : `${at(spell.to)}, then not known`;
    return [begin, end];
}

function spellTable({ list }, bounds) {
    let day = "";
    const last = bounds.at(-1);
    const rows = list.sort((a, b) => a.from - b.from).slice(0, MOST_ROWS).flatMap((spell) => {
        const [begin, end] = endsOf(spell, bounds[0]);
        const text = dayText(spell.from);
        const head = text !== day && bounds.length > 2 ? [h("tr", { className: "day" }, h("th", { colSpan: 5, scope: "rowgroup" }, text))] : [];
        day = text;
        return [...head, row("", h("td", { title: timeText(spell.from) }, begin), h("td", { title: timeText(spell.to) }, spell.to >= last ? "into the next day" : end),
            h("td", { className: "number" }, lengthText(spell.to - spell.from)), link(spell), h("td", { className: "text" }, spell.who))];
    });
    return rows.length ? table("From, to, who", ["From", "To", "For", "Pin", "Who"], rows) : null;
}

function gapNotes(all) {
    const gaps = all.filter(({ from, until }) => until === null || until - from >= 1000);
    const lines = gaps.slice(-MOST_GAPS).map(({ from, until, reason }) =>
        h("p", { className: "note" }, `Nothing is known from ${momentText(from)} to ${until ? momentText(until) : "now"}: ${reason}.`));
    return gaps.length > MOST_GAPS ? [h("p", { className: "note" }, `${gaps.length} gaps; the latest are:`), ...lines] : lines;
}

export function showDays(main, given) {
    const fields = {
        day: h("input", { type: "date", "aria-label": "Day", value: given.get("day") ?? dateText(now()) }),
        days: choice("How many days, up to this one", PERIODS, given.get("days") ?? "1"),
        level: choice("Level", LEVELS, given.get("level") ?? "L"),
        group: choice("Group", [["", "all groups"], ...store.groups.map(({ name, title }) => [name, title || name])], given.get("group") ?? ""),
        pin: h("input", { type: "search", placeholder: "Pin", "aria-label": "Pin", value: given.get("pin") ?? "" }),
    };
    const body = h("div", {});
    let over = false;
    let search = 0;
    let due = 0;
    const value = (name) => fields[name].value.trim();
    const bounds = () => boundsOf(value("day") || dateText(now()), Number(value("days")));
    function paths() {
        const days = bounds();
        const which = value("pin") ? `&pin=${encodeURIComponent(value("pin"))}` : value("group") ? `&group=${encodeURIComponent(value("group"))}` : "";
        return [`api/v1/days?days=${days.join()}&offset=${-new Date(days[0]).getTimezoneOffset()}${which}`,
            `api/v1/spells?from=${days[0]}&to=${days.at(-1)}&level=${value("level")}${which}`];
    }
    const save = (i, file) => h("button", { type: "button", on: { click: () => download(paths()[i], file) } }, "Download as CSV");
    async function load() {
        const mine = ++search;
        const days = bounds();
        try {
            const [sums, times] = await Promise.all([askList(paths()[0], "pins"), askList(paths()[1], "spells")]);
            if (over || mine !== search) {
                return;
            }
            const list = spellTable(times, days);
            const cut = sums.next || times.next || times.list.length > MOST_ROWS;
            body.replaceChildren(...gapNotes(sums.gaps), sumTable(sums, value("level"), days.length > 2), save(0, `days-${value("day")}.csv`),
                ...(list ? [h("h2", { className: "next" }, `When they were ${levelText(value("level"))}`), list, save(1, `times-${value("day")}.csv`)] : []),
                ...(cut ? [h("p", { className: "note" }, "There is more than is shown: choose a group or a pin, or download all.")] : []));
        } catch (error) {
            body.replaceChildren(h("p", { className: "empty" }, `Can't be shown: ${error.message}.`));
        }
    }
    const change = () => {
        const text = new URLSearchParams(Object.keys(fields).filter((name) => value(name)).map((name) => [name, value(name)]));
        history.replaceState(null, "", `#/days?${text}`);
        clearTimeout(due);
        due = setTimeout(load, 200);
    };
    Object.values(fields).forEach((field) => field.addEventListener("input", change));
    main.replaceChildren(h("h1", {}, "Days"), h("div", { className: "tools" }, ...Object.values(fields)), body);
    load();
    const timer = setInterval(() => bounds().at(-1) > now() && !document.hidden && load(), PACE);
    return () => { over = true; clearInterval(timer); clearTimeout(due); };
}
