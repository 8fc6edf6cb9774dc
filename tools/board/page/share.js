// The address of a lamp or wall, for phones.
import { h } from "./dom.js";

const isOnlyHere = ["localhost", "[::1]"].includes(location.hostname) || location.hostname.startsWith("127.");

// path: of the page, relative to the board. Its code is made when it is asked for.
export function phoneCode(path, title) {
    const { href } = new URL(path, import.meta.url);
    const image = h("img", { alt: `QR code of ${href}`, className: "code", width: 240, height: 240 });
    return h("details", { className: "share", on: { toggle() { image.src = `qr.svg?text=${encodeURIComponent(href)}`; } } },
        h("summary", {}, title), image, h("p", {}, h("a", { href, target: "_blank", rel: "noopener" }, href)),
        isOnlyHere ? h("p", { className: "note" }, "Other devices can't use this address: open the board by its address in the network, and the code will have it.") : null);
}
