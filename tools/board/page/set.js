// The dialog that confirms and sends a set. The lamp changes when the device confirms it.
import { h } from "./dom.js";
import { asKnown, on, store } from "./store.js";
import { levelText, nameOf } from "./text.js";

const dialog = document.getElementById("set");

// Whether it was sent is not known if no answer came.
class NoAnswer extends Error {}

async function send(pin, level, duration, token, who) {
    const body = { pin, level, who };
    if (duration) {
        body.duration = duration;
    }
    let response;
    let answer;
    try {
        response = await fetch("api/v1/set", {
            method: "POST", body: JSON.stringify(body), signal: AbortSignal.timeout(5000),
            headers: { "Content-Type": "application/json", "X-Orvex-Board": "set", ...(store.me ? {} : { Authorization: `Bearer ${token}` }) },
        });
        answer = await response.json();
    } catch {
        throw new NoAnswer("No answer: whether it was sent is not known.");
    }
    if (!response.ok) {
        throw new Error(`Not sent: ${answer.error ?? response.statusText}.`);
    }
    return answer;
}

// What the board knows of the pin, while the dialog is open.
function followPin(name, element) {
    const show = () => {
        const pin = asKnown(store.pins.get(name) ?? { level: null });
        element.textContent = `The pin now: ${levelText(pin.level)}` +
            (pin.state === "written" ? ", requested and not confirmed" : pin.state === "told" ? `, told by ${pin.by}` : "") + ".";
    };
    const ends = ["pin", "new", "pins", "status"].map((kind) => on(kind, show));
    dialog.addEventListener("close", () => ends.forEach((end) => end()), { once: true });
    show();
}

const KINDS = { sending: "Sending", sent: "\u2713 ", failed: "\u2717 ", unsure: "? " };

export function askToSet(pin, level, duration) {
    const choice = (value, text) => h("label", {}, h("input", { type: "radio", name: "level", value, checked: value === level }), text);
    const time = h("input", { type: "number", min: 0, max: 7750, step: 10, value: duration, placeholder: "no limit" });
    const token = h("input", { type: "password", autocomplete: "off", required: !store.me, value: sessionStorage.getItem("token") ?? "" });
    const who = h("input", { type: "text", maxLength: 40, autocomplete: "name", value: localStorage.getItem("who") ?? "" });
    const answer = h("p", { className: "answer", role: "status" });
    const state = h("p", { className: "note" });
    const submit = h("button", { type: "submit", className: "main" }, "Send");
    const cancel = h("button", { type: "button", on: { click: () => dialog.close() } }, "Cancel");
    const tell = (kind, text) => {
        answer.className = `answer ${kind}`;
        answer.textContent = KINDS[kind] + text;
        const over = kind === "sent" || kind === "unsure";
        submit.disabled = over || kind === "sending";
        cancel.textContent = over ? "Close" : "Cancel";
        if (over) {
            cancel.focus();
        }
    };
    async function submitForm(event) {
        event.preventDefault();
        tell("sending", "");
        try {
            const sent = await send(pin.pin, form.elements.level.value, Number(time.value), token.value, who.value);
            if (!store.me) {
                sessionStorage.setItem("token", token.value);
                localStorage.setItem("who", who.value);
            }
            tell("sent", `Sent${sent.duration ? ` for ${sent.duration} ms` : ""}. The lamp changes when the device confirms it.`);
        } catch (error) {
            tell(error instanceof NoAnswer ? "unsure" : "failed", error.message);
        }
    }
    const form = h("form", { on: { submit: submitForm } },
        h("h2", { id: "set-title" }, `Set ${nameOf(pin)}?`, nameOf(pin) === pin.pin ? null : h("small", {}, pin.pin)),
        h("fieldset", {}, h("legend", {}, "Level"), choice("L", "low (L)"), choice("H", "high (H)")),
        h("label", {}, "Duration in ms", time),
        ...(store.me ? [] : [h("label", {}, "Token", token), h("label", {}, "Your name (stored in the history)", who)]),
        answer, state, h("div", { className: "buttons" }, cancel, submit));
    dialog.replaceChildren(form);
    dialog.showModal();
    followPin(pin.pin, state);
    (store.me || token.value ? submit : token).focus();
}
