// One stream for all pages of a browser: it allows few connections to one host.
import { follow } from "./follow.js";

const pages = new Set();
let state = { name: "connecting" };
let end = null;

function start() {
    end?.abort();
    end = new AbortController();
    const { signal } = end;
    follow((event) => {
        if (!signal.aborted) {
            state = event.name === "open" || event.name === "lost" ? event : state;
            pages.forEach((page) => page.postMessage(event));
        }
    }, signal);
}
start();

onconnect = ({ ports: [page] }) => {
    pages.add(page);
    page.onmessage = ({ data }) => (data === "again" ? start() : pages.delete(page)); // else it is being closed
    page.postMessage(state);
};
