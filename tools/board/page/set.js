// The dialog that confirms and sends a set. The lamp changes when the device confirms it.
import { h } from "./dom.js";
import { nameOf } from "./text.js";

const dialog = document.getElementById("set");

async function send(pin, level, duration, token, who) {
    const body = { pin, level, who };
    if (duration) {
        body.duration = duration;
    }
    const response = await fetch("/api/v1/set", {
        method: "POST", body: JSON.stringify(body), signal: AbortSignal.timeout(5000),
        headers: { "Content-Type": "application/json", "X-Orvex-Board": "set", Authorization: `Bearer ${token}` },
    });
    const answer = await response.json();
    if (!response.ok) {
        throw new Error(answer.error ?? response.statusText);
    }
    return answer;
}

export function askToSet(pin, level, duration) {
    const choice = (value, text) => h("label", {}, h("input", { type: "radio", name: "level", value, checked: value === level }), text);
    const time = h("input", { type: "number", min: 0, max: 7750, step: 10, value: duration, placeholder: "no limit" });
    const token = h("input", { type: "password", autocomplete: "off", required: true, value: sessionStorage.getItem("token") ?? "" });
    const who = h("input", { type: "text", maxLength: 40, autocomplete: "name", value: localStorage.getItem("who") ?? "" });
    const answer = h("p", { className: "answer", role: "status" });
    const submit = h("button", { type: "submit", className: "main" }, "Send");
    const form = h("form", {
        on: {
            async submit(event) {
                event.preventDefault();
                submit.disabled = true;
                try {
                    const sent = await send(pin.pin, form.elements.level.value, Number(time.value), token.value, who.value);
                    sessionStorage.setItem("token", token.value);
                    localStorage.setItem("who", who.value);
                    answer.textContent = `Sent${sent.duration ? ` for ${sent.duration} ms` : ""}. The lamp changes when the device confirms it.`;
                    setTimeout(() => dialog.close(), 1200);
                } catch (error) {
                    answer.textContent = `Not sent: ${error.message}`;
                    submit.disabled = false;
                }
            },
        },
    },
    h("h2", { id: "set-title" }, `Set ${nameOf(pin)}?`, nameOf(pin) === pin.pin ? null : h("small", {}, pin.pin)),
    h("fieldset", {}, h("legend", {}, "Level"), choice("L", "low (L)"), choice("H", "high (H)")),
    h("label", {}, "Duration in ms", time), h("label", {}, "Token", token), h("label", {}, "Your name (stored in the history)", who),
    answer,
    h("div", { className: "buttons" }, h("button", { type: "button", on: { click: () => dialog.close() } }, "Cancel"), submit));
    dialog.replaceChildren(form);
    dialog.showModal();
    (token.value ? submit : token).focus();
}
