// Creates elements. Texts become text nodes, so markup in them has no effect.

export function h(name, properties = {}, ...children) {
    const element = document.createElement(name);
    for (const [key, value] of Object.entries(properties)) {
        if (key === "on") {
            for (const [event, listener] of Object.entries(value)) {
                element.addEventListener(event, listener);
            }
        } else if (key in element && key !== "list" && key !== "role") {
            element[key] = value;
        } else {
            element.setAttribute(key, value);
        }
    }
    element.append(...children.filter((child) => child !== null && child !== undefined));
    return element;
}

// On a narrow screen, the cells of a row are stacked, each with its head.
export function table(caption, heads, rows) {
    rows.forEach((one) => [...one.cells].forEach((cell, i) => cell.setAttribute("data-head", heads[i])));
    return h("table", { className: "stacked", "aria-label": caption },
        h("thead", {}, h("tr", {}, ...heads.map((head) => h("th", { scope: "col" }, head)))), h("tbody", {}, ...rows));
}

export function row(className, ...cells) {
    return h("tr", { className }, ...cells.map((cell) =>
        cell instanceof HTMLTableCellElement ? cell : h("td", {}, cell ?? "")));
}
