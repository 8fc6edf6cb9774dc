// All pins, as lamps in groups.
import { h } from "./dom.js";
import { asKnown, isCurrent, now, on, store } from "./store.js";
import { ageText, classOf, levelText, nameOf, rankOf, running, whoText } from "./text.js";

const SLICE = 8; // ms of work between two frames, so that thousands of lamps don't delay the first

const lamps = new Map(); // pin -> its parts
const groups = new Map(); // key -> its parts
const sections = []; // the groups in order
const list = h("div", { className: "groups" }); // kept while another view is shown
const visible = new Set(); // elements of groups
const changed = new Set();
let pending = []; // pins without a lamp yet, the next one last
let adding = 0;
let stale = true;
let shown = 0; // lamps that match the search
let view = null;
let words = [];
let left = { scroll: 0, pin: "" }; // when the view was left
let search = "";
let byName = localStorage.getItem("group") === "name";
let drawing = false;

const observer = new IntersectionObserver((entries) => {
    for (const entry of entries) {
        entry.isIntersecting ? visible.add(entry.target) : visible.delete(entry.target);
    }
    showAges();
}, { rootMargin: "200px" });

function setText(element, text) {
    if (element.textContent !== text) {
        element.textContent = text;
    }
}

function show(parts, latest) {
    const pin = asKnown(latest);
    parts.pin = pin;
    const className = `lamp ${classOf(pin)}`;
    if (parts.link.className !== className) {
        parts.link.className = className;
    }
    setText(parts.bulb, pin.level ?? "?");
    setText(parts.name, nameOf(pin));
    setText(parts.level, `, ${levelText(pin.level)}${pin.state === "written" ? ", only written" : ""}, `);
    showAge(parts);
}

function showAge(parts) {
    const pin = parts.pin;
    const time = now();
    const age = ageText(pin, time);
    const named = nameOf(pin) !== pin.pin;
    // What is not known is said in a line of its own, so that nothing of it is cut off.
    setText(parts.age, !named ? age : pin.level === null ? pin.pin : `${pin.pin} \u00b7 ${age}`);
    setText(parts.who, named && pin.level === null ? age : whoText(pin, time));
}

function showAges() {
    for (const { group } of visible) {
        for (const parts of group.lamps) {
            showAge(parts);
        }
    }
}

function makeLamp(pin, heading) {
    const parts = {
        bulb: h("span", { className: "bulb", "aria-hidden": "true" }),
        name: h("span", { className: "name", title: nameOf(pin) }),
        level: h("span", { className: "visually" }),
        age: h("span", { className: "age" }),
        who: h("span", { className: "who" }),
        rank: rankOf(pin.pin),
        text: `${pin.pin} ${pin.name ?? ""} ${pin.title ?? ""} ${heading}`.toLowerCase(),
    };
    parts.link = h("a", { href: `#/pin/${pin.pin}` }, parts.bulb, parts.name, parts.level, parts.age, parts.who);
    parts.element = h("li", {}, parts.link);
    show(parts, pin);
    return parts;
}

function keyOf(pin) {
    return byName && pin.group ? `name ${pin.group}` : `address ${pin.pin.slice(0, pin.pin.lastIndexOf(":"))}`;
}

function headingOf(key) {
    const text = key.slice(key.indexOf(" ") + 1);
    const known = store.groups.find((group) => (key.startsWith("name") ? group.name : group.address) === text);
    const title = known ? known.title || known.name : text;
    return h("h2", {}, title, title === text ? null : h("small", {}, text));
}

// Most arrive in order, so it searches from the end.
function insert(parent, all, parts) {
    let at = all.length;
    while (at > 0 && all[at - 1].rank > parts.rank) {
        --at;
    }
    parent.insertBefore(parts.element, all[at]?.element ?? null);
    all.splice(at, 0, parts);
}

function makeGroup(key, rank) {
    const heading = headingOf(key);
    const lampList = h("ul", { className: "lamps" });
    const group = {
        list: lampList, rank, lamps: [], text: heading.textContent,
        element: h("section", { className: "group" }, heading, lampList),
    };
    group.element.group = group;
    groups.set(key, group);
    insert(list, sections, group);
    observer.observe(group.element);
    return group;
}

function add(pin) {
    const key = keyOf(pin);
    const group = groups.get(key) ?? makeGroup(key, rankOf(pin.pin));
    const parts = makeLamp(pin, group.text);
    lamps.set(pin.pin, parts);
    insert(group.list, group.lamps, parts);
    const isFitting = fits(parts);
    parts.element.hidden = !isFitting;
    shown += isFitting ? 1 : 0;
    if (group.lamps.length === 1 || (isFitting && group.element.hidden)) {
        filterGroup(group);
    }
}

function addSome() {
    adding = 0;
    const end = performance.now() + SLICE;
    while (view && pending.length && performance.now() < end) {
        const { pin } = pending.pop();
        if (!lamps.has(pin) && store.pins.has(pin)) {
            add(store.pins.get(pin));
        }
    }
    addSoon();
}

function addSoon() {
    if (view && pending.length && !adding) {
        adding = setTimeout(addSome);
    }
    if (view) {
        showCount();
    }
}

function build() {
    stale = !view;
    if (stale) {
        return;
    }
    shown = 0;
    lamps.clear();
    groups.clear();
    visible.clear();
    observer.disconnect();
    sections.length = 0;
    list.replaceChildren();
    pending = [...store.pins.values()].map((pin) => ({ pin: pin.pin, rank: rankOf(pin.pin) })).sort((a, b) => b.rank - a.rank);
    clearTimeout(adding);
    addSome();
}

const fits = (parts) => words.every((word) => parts.text.includes(word));

// Leaves the lamps of a completely hidden group unchanged: most groups are.
function filterGroup({ element, lamps: all }) {
    const fitting = all.map(fits);
    const count = fitting.filter(Boolean).length;
    if (element.hidden !== (count === 0)) {
        element.hidden = count === 0;
    }
    for (let i = 0; count > 0 && i < all.length; ++i) {
        if (all[i].element.hidden === fitting[i]) {
            all[i].element.hidden = !fitting[i];
        }
    }
    return count;
}

function filter() {
    words = search.toLowerCase().split(/\s+/).filter(Boolean);
    shown = sections.reduce((sum, group) => sum + filterGroup(group), 0);
    showCount();
}

function showCount() {
    const total = store.pins.size;
    let low = 0;
    let unknown = 0;
    for (const pin of store.pins.values()) {
        low += pin.level === "L" && pin.state === "told" ? 1 : 0;
        unknown += pin.level === null ? 1 : 0;
    }
    const levels = isCurrent() ? `${low} low${unknown ? `, ${unknown} not known` : ""}` : "levels not known";
    view.count.textContent = words.length ? `${shown} of ${total} pins` : `${total} pins, ${levels}`;
    view.empty.hidden = shown > 0 || pending.length > 0;
    view.empty.textContent = total ? "No pin matches the search."
        : "Nothing has been heard yet. Pins appear as devices report them, or when a file of names (--names) or a control server (-r) lists them.";
}

function draw() {
    drawing = false;
    if (!view) {
        return;
    }
    for (const pin of changed) {
        const parts = lamps.get(pin);
        if (parts) {
            show(parts, store.pins.get(pin));
        }
    }
    changed.clear();
    showCount();
}

on("pin", (pin) => {
    changed.add(pin.pin);
    if (view && !drawing) {
        drawing = true;
        requestAnimationFrame(draw);
    }
});
on("new", (pin) => {
    pending.push({ pin: pin.pin });
    addSoon();
});
// After an outage of board or bus, most pins are the same.
on("pins", () => {
    const isSame = (pin) => {
        const old = lamps.get(pin.pin)?.pin;
        return old && ["name", "title", "group"].every((key) => old[key] === pin[key]);
    };
    const all = [...store.pins.values()];
    if (all.length === lamps.size && all.every(isSame)) {
        all.forEach(({ pin }) => changed.add(pin));
        draw();
    } else {
        build();
    }
});
// When the board is lost or back, what is known of all pins changes.
let current = false;
on("status", () => {
    if (current !== isCurrent()) {
        current = isCurrent();
        [...lamps.keys()].forEach((pin) => changed.add(pin));
        draw();
    }
});
setInterval(() => view && isCurrent() && showAges(), 1000);
setInterval(() => {
    for (const { group } of view ? visible : []) {
        group.lamps.filter(({ pin }) => running(pin, now()) > 0).forEach(showAge);
    }
}, 100);

export function showLamps(main) {
    const input = h("input", {
        type: "search", id: "search", placeholder: "Search (/)", value: search, "aria-label": "Search pins",
        autocomplete: "off", on: { input() { search = input.value; filter(); } },
    });
    const grouping = h("select", {
        "aria-label": "Group by",
        on: { change() { byName = grouping.value === "name"; localStorage.setItem("group", grouping.value); build(); } },
    }, h("option", { value: "address" }, "by address"), h("option", { value: "name" }, "by name"));
    grouping.value = byName ? "name" : "address";
    view = { count: h("span", { className: "count" }), empty: h("p", { className: "empty", hidden: true }) };
    main.replaceChildren(h("h1", { className: "visually" }, "Pins"),
        h("div", { className: "tools" }, input, grouping, view.count), view.empty, list);
    if (stale) {
        build();
    } else {
        draw();
        addSoon();
    }
    // Restores the position and the focus.
    const { scroll, pin } = left;
    requestAnimationFrame(() => {
        scrollTo(0, scroll);
        lamps.get(pin)?.link.focus({ preventScroll: true });
    });
    return () => {
        view = null;
        left = { scroll: scrollY, pin: location.hash.replace(/^#\/pin\//, "").split("?")[0] };
    };
}
