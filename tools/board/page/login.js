// Who uses the board: logging in and out, for boards that have users.
import { h } from "./dom.js";
import { on, reconnect, store } from "./store.js";

const dialog = document.getElementById("login");
const who = document.getElementById("who");
let offered = false; // while nothing can be seen without it

async function post(path, body) {
    const response = await fetch(new URL(path, import.meta.url), {
        method: "POST", body: JSON.stringify(body), signal: AbortSignal.timeout(15000),
        headers: { "Content-Type": "application/json", "X-Orvex-Board": "set" },
    });
    const answer = await response.json();
    if (!response.ok) {
        throw new Error(answer.error ?? response.statusText);
    }
}

export function askToLogIn() {
    const user = h("input", { type: "text", name: "user", autocomplete: "username", autocapitalize: "none", spellcheck: false, required: true });
    const password = h("input", { type: "password", name: "password", autocomplete: "current-password", required: true });
    const answer = h("p", { className: "answer", role: "status" });
    const submit = h("button", { type: "submit", className: "main" }, "Log in");
    async function submitForm(event) {
        event.preventDefault();
        submit.disabled = true;
        answer.className = "answer";
        answer.textContent = "Checking.";
        try {
            await post("api/v1/login", { user: user.value.normalize("NFC"), password: password.value.normalize("NFC") });
            dialog.close();
            reconnect();
        } catch (error) {
            answer.className = "answer failed";
            answer.textContent = `\u2717 Not logged in: ${error.message}.`;
            submit.disabled = false;
            password.select();
        }
    }
    dialog.replaceChildren(h("form", { on: { submit: submitForm } },
        h("h2", { id: "login-title" }, "Log in"),
        h("label", {}, "Name", user), h("label", {}, "Password", password), answer,
        h("div", { className: "buttons" }, h("button", { type: "button", on: { click: () => dialog.close() } }, "Cancel"), submit)));
    if (!dialog.open) {
        dialog.showModal();
    }
    user.focus();
}

async function logOut() {
    try {
        await post("api/v1/logout", {});
    } finally {
        reconnect();
    }
}

let shown = "";
function showWho() {
    const text = store.mustLogIn || store.me?.guest ? "guest" : store.me?.name ?? "";
    if (text !== shown) {
        shown = text;
        who.hidden = text === "";
        who.replaceChildren(...(text === "guest" ? [h("button", { type: "button", on: { click: askToLogIn } }, "Log in")]
            : [h("span", { className: "name" }, text), h("button", { type: "button", on: { click: logOut } }, "Log out")]));
    }
    if (store.mustLogIn && !offered && !document.querySelector("dialog[open]")) {
        askToLogIn();
    }
    offered = store.mustLogIn;
}

["status", "pins"].forEach((kind) => on(kind, showWho));
