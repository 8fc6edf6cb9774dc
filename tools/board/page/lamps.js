// All pins, as lamps in groups.
import { h } from "./dom.js";
import { now, on, store } from "./store.js";
import { classOf, levelText, nameOf, running, span, whoText } from "./text.js";

const lamps = new Map(); // pin -> its parts
const groups = new Map(); // key -> its parts
const changed = new Set();
const visible = new Set();
let view = null;
let search = "";
let byName = localStorage.getItem("group") === "name";
let drawing = false;

const observer = new IntersectionObserver((entries) => {
    for (const entry of entries) {
        entry.isIntersecting ? visible.add(entry.target) : visible.delete(entry.target);
    }
    showAges();
}, { rootMargin: "200px" });

function show(parts, pin) {
    parts.pin = pin;
    const className = `lamp ${classOf(pin)}`;
    if (parts.link.className !== className) {
        parts.link.className = className;
    }
    parts.bulb.textContent = pin.level ?? "?";
    parts.name.textContent = nameOf(pin);
    parts.level.textContent = `, ${levelText(pin.level)}${pin.state === "written" ? ", only written" : ""}, `;
    showAge(parts);
}

function showAge(parts) {
    const pin = parts.pin;
    const time = now();
    parts.age.textContent = (nameOf(pin) === pin.pin ? "" : `${pin.pin} \u00b7 `) +
        (pin.since ? span(time - pin.since) : "never heard");
    parts.who.textContent = whoText(pin, time);
}

function showAges() {
    for (const group of visible) {
        for (const parts of group.lamps) {
            showAge(parts);
        }
    }
}

function makeLamp(pin) {
    const parts = {
        bulb: h("span", { className: "bulb", "aria-hidden": "true" }),
        name: h("span", { className: "name" }),
        level: h("span", { className: "visually" }),
        age: h("span", { className: "age" }),
        who: h("span", { className: "who" }),
    };
    parts.link = h("a", { href: `#/pin/${pin.pin}` }, parts.bulb, parts.name, parts.level, parts.age, parts.who);
    parts.item = h("li", {}, parts.link);
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

function build() {
    if (!view) {
        return;
    }
    lamps.clear();
    groups.clear();
    visible.clear();
    observer.disconnect();
    for (const pin of store.pins.values()) {
        const key = keyOf(pin);
        if (!groups.has(key)) {
            const list = h("ul", { className: "lamps" });
            const section = h("section", { className: "group" }, headingOf(key), list);
            section.lamps = [];
            groups.set(key, { section, list });
        }
        const group = groups.get(key);
        const parts = makeLamp(pin);
        lamps.set(pin.pin, parts);
        group.section.lamps.push(parts);
    }
    for (const { section, list } of groups.values()) {
        // Told in the order of circuits, in which the first pin is the last.
        section.lamps.reverse();
        list.append(...section.lamps.map((parts) => parts.item));
    }
    view.list.replaceChildren(...[...groups.values()].map((group) => group.section));
    for (const group of groups.values()) {
        observer.observe(group.section);
    }
    filter();
}

function filter() {
    const words = search.toLowerCase().split(/\s+/).filter(Boolean);
    let count = 0;
    for (const { section } of groups.values()) {
        const heading = section.firstChild.textContent.toLowerCase();
        let any = false;
        for (const { pin, item } of section.lamps) {
            const text = `${pin.pin} ${pin.name ?? ""} ${pin.title ?? ""} ${heading}`.toLowerCase();
            item.hidden = !words.every((word) => text.includes(word));
            any ||= !item.hidden;
            count += item.hidden ? 0 : 1;
        }
        section.hidden = !any;
    }
    const lit = [...store.pins.values()].filter((pin) => pin.level === "L" && pin.state === "told").length;
    view.count.textContent = words.length ? `${count} of ${store.pins.size} pins`
        : `${store.pins.size} pins, ${lit} low`;
    view.empty.hidden = count > 0;
    view.empty.textContent = store.pins.size ? "No pin is called so."
        : "Nothing has been heard yet. Pins appear as devices report them, or when a file of names (--names) or a control server (-r) tells of them.";
}

function draw() {
    drawing = false;
    for (const pin of changed) {
        const parts = lamps.get(pin);
        if (parts) {
            show(parts, store.pins.get(pin));
        }
    }
    changed.clear();
}

on("pin", (pin) => {
    changed.add(pin.pin);
    if (view && !drawing) {
        drawing = true;
        requestAnimationFrame(draw);
    }
});
let building = 0;
on("pins", () => {
    clearTimeout(building);
    building = setTimeout(build, 50);
});
setInterval(() => view && showAges(), 1000);
setInterval(() => {
    for (const group of view ? visible : []) {
        group.lamps.filter(({ pin }) => running(pin, now()) > 0).forEach(showAge);
    }
    if (view) {
        filter.due = (filter.due ?? 0) + 1;
        if (filter.due % 20 === 0) {
            filter();
        }
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
    view = {
        list: h("div", { className: "groups" }), count: h("span", { className: "count" }),
        empty: h("p", { className: "empty", hidden: true }),
    };
    main.replaceChildren(h("h1", { className: "visually" }, "Pins"),
        h("div", { className: "tools" }, input, grouping, view.count), view.empty, view.list);
    build();
    return () => { view = null; observer.disconnect(); };
}
