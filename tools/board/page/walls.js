// Walls: lamps for a screen in a corridor, chosen and arranged by people.
import { h, row, table } from "./dom.js";
import { phoneCode } from "./share.js";
import { ask, on, store } from "./store.js";
import { momentText, nameOf, rankOf } from "./text.js";

const COLORS = ["red", "amber", "green"];
const FOUND = 12; // pins that a search shows
const outside = (path, text) => h("a", { href: path, target: "_blank", rel: "noopener" }, text);
const button = (text, click, label = text) => h("button", { type: "button", "aria-label": label, on: { click } }, text);

// Sends a change. Throws an Error with the board's reason.
async function send(method, name, body) {
    const response = await fetch(new URL(`api/v1/walls/${encodeURIComponent(name)}`, import.meta.url), {
        method, body: body && JSON.stringify(body), signal: AbortSignal.timeout(5000),
        headers: { "Content-Type": "application/json", "X-Orvex-Board": "set", ...(store.me ? {} : { Authorization: `Bearer ${sessionStorage.getItem("token") ?? ""}` }) },
    });
    const answer = await response.json();
    if (!response.ok) {
        throw new Error(answer.error ?? response.statusText);
    }
    return answer;
}

function tokenField() {
    const field = h("input", { type: "password", autocomplete: "off", value: sessionStorage.getItem("token") ?? "" });
    field.addEventListener("input", () => sessionStorage.setItem("token", field.value));
    return h("label", {}, "Token ", field);
}

function wallRow(wall, mayEdit) {
    const path = `wall/${wall.name}`;
    return row("", outside(path, wall.title || wall.name), h("td", { className: "number" }, String(wall.lamps)), `${momentText(wall.at)}, by ${wall.by}`,
        h("td", { className: "text" }, h("div", {}, mayEdit ? h("a", { href: `#/wall/${wall.name}` }, "Change") : null, phoneCode(path, "QR code"))));
}

export function showWalls(main) {
    const body = h("div", {});
    async function load() {
        const { walls, allow_edit: mayEdit, kept, problem } = await ask("api/v1/walls");
        body.replaceChildren(
            ...(problem ? [h("p", { className: "note" }, `Walls can't be kept: ${problem}.`)] : []),
            walls.length ? table("Walls", ["Wall", "Lamps", "Changed", "More"], walls.map((wall) => wallRow(wall, mayEdit)))
                : h("p", { className: "empty" }, "Nobody has made a wall yet."),
            ...(mayEdit ? [h("p", {}, h("a", { href: "#/wall/" }, "Make a wall"))] : [h("p", { className: "note" }, "You have no right to make walls.")]),
            ...(mayEdit && kept === "memory" ? [h("p", { className: "note" }, "They are gone when the board ends: it has no file for them (--walls).")] : []),
            h("h2", { className: "next" }, "All lamps of a group"),
            h("ul", { className: "plain" }, h("li", {}, outside("wall", "All pins")), ...store.groups.map(({ name, title }) =>
                h("li", {}, outside(`wall?group=${encodeURIComponent(name)}`, title || name)))));
    }
    const show = () => load().catch((error) => body.replaceChildren(h("p", { className: "empty" }, `Can't be shown: ${error.message}.`)));
    main.replaceChildren(h("h1", {}, "Walls"), h("p", { className: "note" }, "Lamps that fill a screen, for a corridor or a control room."), body);
    show();
    return on("wall", show);
}

// ---- making one ----

// A lamp that is being edited; its fields change `lamp`.
function lampRow(lamp, move, remove) {
    const pin = store.pins.get(lamp.pin) ?? { pin: lamp.pin };
    const name = nameOf(pin);
    const text = (key, label, placeholder) => h("input", {
        type: "text", "aria-label": `${label} of ${name}`, placeholder, maxLength: 60, value: lamp[key] ?? "",
        on: { input(event) { event.target.value ? lamp[key] = event.target.value : delete lamp[key]; } },
    });
    const custom = h("input", { type: "color", "aria-label": `Own colour of ${name}`, value: lamp.color?.startsWith("#") ? lamp.color : "#ff8800", hidden: !lamp.color?.startsWith("#"), on: { input() { lamp.color = custom.value; } } });
    const color = h("select", { "aria-label": `Colour of ${name}`, on: { change() { custom.hidden = color.value !== "#"; lamp.color = color.value === "#" ? custom.value : color.value; } } },
        ...COLORS.map((value) => h("option", { value }, value)), h("option", { value: "#" }, "own"));
    color.value = lamp.color?.startsWith("#") ? "#" : lamp.color ?? "red";
    const level = h("select", { "aria-label": `When ${name} is lit`, on: { change() { lamp.level = level.value; } } },
        h("option", { value: "L" }, "lit when low"), h("option", { value: "H" }, "lit when high"));
    level.value = lamp.level ?? "L";
    return h("li", {}, h("span", { className: "pin" }, name, name === lamp.pin ? null : h("small", {}, lamp.pin)),
        h("span", { className: "tools" }, text("label", "Label", name), color, custom, level, text("on", "Word when lit", "ON"), text("off", "Word when dark", "OFF"),
            button("\u25b2", () => move(-1), `${name} up`), button("\u25bc", () => move(1), `${name} down`), button("\u2715", remove, `Remove ${name}`)));
}

// Chooses pins by a search, or whole groups.
function chooser(add) {
    const found = h("p", { className: "tools" });
    const pins = () => [...store.pins.values()].sort((a, b) => rankOf(a.pin) - rankOf(b.pin));
    const search = h("input", { type: "search", placeholder: "Pin", "aria-label": "Search pins to add", on: { input: find } });
    function find() {
        const words = search.value.toLowerCase().split(/\s+/).filter(Boolean);
        const fits = ({ pin, name = "", title = "", group = "" }) => words.every((word) => `${pin} ${name} ${title} ${group}`.toLowerCase().includes(word));
        const all = words.length ? pins().filter(fits) : [];
        found.replaceChildren(...all.slice(0, FOUND).map((pin) => button(`+ ${nameOf(pin)}`, () => add([pin]))),
            all.length > FOUND ? `and ${all.length - FOUND} more` : words.length && !all.length ? "No pin matches." : "");
    }
    const group = h("select", { "aria-label": "Add a group", on: { change() { add(pins().filter((pin) => pin.group === group.value && pin.title)); group.value = ""; } } },
        h("option", { value: "" }, "add a group"), ...store.groups.map(({ name, title }) => h("option", { value: name }, title || name)));
    return [h("div", { className: "tools" }, search, store.groups.length ? group : null), found];
}

export function showEditor(main, name) {
    let wall = { title: "", size: 0, version: 0, lamps: [] };
    const list = h("ol", { className: "edited" });
    const answer = h("p", { role: "status" });
    const address = h("input", { type: "text", required: true, pattern: "[A-Za-z0-9_\\-]{1,40}", value: name, disabled: name !== "", title: "letters, digits, - and _" });
    const title = h("input", { type: "text", maxLength: 60 });
    const size = h("input", { type: "number", min: 0, max: 40, placeholder: "as fits" });
    function showLamps() {
        list.replaceChildren(...wall.lamps.map((lamp, i) => lampRow(lamp, (by) => {
            const to = i + by;
            if (to >= 0 && to < wall.lamps.length) {
                [wall.lamps[i], wall.lamps[to]] = [wall.lamps[to], wall.lamps[i]];
                showLamps();
                list.children[to].querySelectorAll("button")[by < 0 ? 0 : 1].focus();
            }
        }, () => { wall.lamps.splice(i, 1); showLamps(); })));
    }
    function add(pins) {
        wall.lamps.push(...pins.filter(({ pin }) => !wall.lamps.some((lamp) => lamp.pin === pin)).map(({ pin }) => ({ pin })));
        showLamps();
    }
    const tell = (text, isGood) => {
        answer.className = isGood ? "done" : "failed";
        answer.replaceChildren(text, isGood ? outside(`wall/${address.value}`, "Show it") : "");
    };
    async function save(event) {
        event.preventDefault();
        try {
            wall = await send("PUT", address.value, { ...wall, title: title.value, size: Number(size.value) });
            address.disabled = true;
            tell("\u2713 Saved. ", true);
        } catch (error) {
            tell(`\u2717 Not saved: ${error.message}.`, false);
        }
    }
    async function remove() {
        if (confirm(`Remove the wall ${address.value}?`)) {
            try {
                await send("DELETE", address.value);
                location.hash = "#/walls";
            } catch (error) {
                tell(`\u2717 Not removed: ${error.message}.`, false);
            }
        }
    }
    main.replaceChildren(h("p", {}, h("a", { href: "#/walls" }, "\u2190 All walls")), h("h1", {}, name ? `The wall ${name}` : "A new wall"),
        h("form", { className: "panel wall", on: { submit: save } },
            h("div", { className: "tools" }, h("label", {}, "Name in the address ", address), h("label", {}, "Title ", title), h("label", {}, "Lamps in a row ", size)),
            h("h2", {}, "Lamps"), ...chooser(add), list,
            h("div", { className: "tools" }, store.me ? null : tokenField(), h("button", { type: "submit", className: "main" }, "Save"), name ? button("Remove", remove) : null), answer));
    if (name) {
        ask(`api/v1/walls/${encodeURIComponent(name)}`).then((found) => {
            wall = found;
            title.value = wall.title;
            size.value = wall.size || "";
            showLamps();
        }, (error) => tell(error.message, false));
    }
    return () => {};
}
