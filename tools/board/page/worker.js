// One stream for all pages of a browser: it allows few connections to one host.
import { follow } from "./follow.js";

const pages = new Set();
let state = { name: "connecting" };

follow((event) => {
    state = event.name === "open" || event.name === "lost" ? event : state;
    pages.forEach((page) => page.postMessage(event));
});

onconnect = ({ ports: [page] }) => {
    pages.add(page);
    page.onmessage = () => pages.delete(page); // it is being closed
    page.postMessage(state);
};
