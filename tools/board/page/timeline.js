// The level of a pin over time, with zooming and scrolling.
import { h } from "./dom.js";
import { ask, now, on } from "./store.js";
import { axisText, levelText, span, timeText } from "./text.js";

const MIN_SPAN = 1000;
const MAX_SPAN = 400 * 86400e3;
const SPANS = [["10 min", 600e3], ["1 h", 3600e3], ["8 h", 8 * 3600e3], ["1 d", 86400e3], ["1 w", 7 * 86400e3], ["4 w", 28 * 86400e3]];
const STEPS = [1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1200, 1800, 3600, 7200, 14400, 21600, 43200, 86400, 172800, 604800, 1209600].map((s) => s * 1000);

// Periods of one level, oldest first. After a gap, the level is unknown until it is told again.
export function stretches(answer, from, until) {
    const marks = [];
    for (const gap of answer.gaps) {
        marks.push({ time: gap.from, level: "gap", text: gap.reason });
        if (gap.until !== null) {
            marks.push({ time: gap.until, level: null });
        }
    }
    for (const event of answer.events.filter((one) => one.kind === "told").reverse()) {
        marks.push({ time: event.time, level: event.level, text: event.text, host: event.host });
    }
    marks.sort((a, b) => a.time - b.time);
    const oldest = answer.more ? answer.events.at(-1).time : from;
    let open = answer.more ? { level: "more" } : { level: answer.earlier?.level ?? null, host: answer.earlier?.host };
    open.from = from;
    const result = [];
    for (const mark of marks) {
        const time = Math.max(from, mark.time);
        if (open.level === "gap" && mark.level !== null && mark.time < until && answer.gaps.some((gap) => gap.from <= mark.time && (gap.until === null || gap.until > mark.time))) {
            continue;
        }
        if ((answer.more && mark.time < oldest) || (mark.level === open.level && (mark.level === "L" || mark.level === "H"))) {
            continue;
        }
        result.push({ ...open, until: time });
        open = { ...mark, from: time };
    }
    result.push({ ...open, until });
    return result.filter((one) => one.until > one.from);
}

export function makeTimeline(pin) {
    const view = { span: 600e3, until: 0, live: true, answer: null, parts: [], at: null };
    const canvas = h("canvas", { tabIndex: 0, role: "img", "aria-label": "Timeline of the pin" });
    const output = h("output", { "aria-live": "polite" });
    const button = (text, label, action) => h("button", { type: "button", "aria-label": label, on: { click: action } }, text);
    const presets = SPANS.map(([text, ms]) => h("button", { type: "button", on: { click() { view.span = ms; view.live = true; refresh(); } } }, text));
    const showSpan = () => presets.forEach((preset, i) => preset.setAttribute("aria-pressed", String(SPANS[i][1] === view.span)));
    const bounds = () => {
        const until = view.live ? now() : view.until;
        return [until - view.span, until];
    };
    const colours = () => {
        const style = getComputedStyle(document.documentElement);
        return Object.fromEntries(["lit", "dim", "line", "text", "card", "asked"].map((name) => [name, style.getPropertyValue(`--${name}`).trim()]));
    };

    function hatch(context, x, width, top, height, colour, ground) {
        context.save();
        context.beginPath();
        context.rect(x, top, width, height);
        context.clip();
        context.fillStyle = ground;
        context.fill();
        context.strokeStyle = colour;
        context.stroke();
        context.beginPath();
        for (let i = x - height - (x % 8); i < x + width; i += 8) {
            context.moveTo(i, top + height);
            context.lineTo(i + height, top);
        }
        context.stroke();
        context.restore();
    }

    function axis(context, width, bottom, from, until, colour) {
        const step = STEPS.find((one) => (until - from) / one * 90 < width) ?? STEPS.at(-1);
        const zone = new Date(until).getTimezoneOffset() * 60000;
        context.fillStyle = colour.dim;
        context.strokeStyle = colour.line;
        for (let time = Math.ceil((from - zone) / step) * step + zone; time < until; time += step) {
            const x = Math.round((time - from) / (until - from) * width) + 0.5;
            context.beginPath();
            context.moveTo(x, 0);
            context.lineTo(x, bottom + 5);
            context.stroke();
            const text = axisText(time, step);
            if (x + context.measureText(text).width + 4 < width) {
                context.fillText(text, x + 3, bottom + 17);
            }
        }
    }

    function draw() {
        const ratio = devicePixelRatio;
        const [width, height] = [canvas.clientWidth, canvas.clientHeight];
        canvas.width = width * ratio;
        canvas.height = height * ratio;
        const context = canvas.getContext("2d");
        context.scale(ratio, ratio);
        context.font = `${Math.max(11, height / 12)}px system-ui, sans-serif`;
        const [from, until] = bounds();
        const colour = colours();
        const bottom = height - 24;
        const top = 22;
        axis(context, width, bottom, from, until, colour);
        view.parts = view.answer ? stretches(view.answer, from, until) : [];
        const x = (time) => (time - from) / (until - from) * width;
        const hatched = [];
        for (const part of view.parts) {
            const left = x(part.from);
            const wide = Math.max(1, x(part.until) - left);
            if (part.level === "L") {
                context.fillStyle = colour.lit;
                context.fillRect(left, top, wide, bottom - top);
            } else if (part.level === "H") {
                context.fillStyle = colour.dim;
                context.fillRect(left, bottom - 4, wide, 4);
            } else if (part.level === "gap" || part.level === "more") {
                hatched.push([part.level === "gap" ? colour.dim : colour.lit, left, Math.max(4, wide)]);
            }
        }
        // Drawn last and wide enough, so that short gaps are visible.
        for (const [shade, left, wide] of hatched) {
            hatch(context, left, wide, top, bottom - top, shade, colour.card);
        }
        context.fillStyle = colour.asked;
        for (const event of view.answer?.events ?? []) {
            if (event.kind === "written" || event.kind === "set") {
                const left = x(event.time);
                context.beginPath();
                context.moveTo(left, top - 4);
                context.lineTo(left - 5, top - 14);
                context.lineTo(left + 5, top - 14);
                context.fill();
            }
        }
        if (view.at !== null) {
            context.strokeStyle = colour.text;
            context.beginPath();
            context.moveTo(x(view.at), 0);
            context.lineTo(x(view.at), bottom);
            context.stroke();
        }
    }

    function tell(time) {
        view.at = time;
        const part = view.parts.find((one) => one.from <= time && time < one.until);
        const words = !part ? "" : part.level === "gap" ? part.text
            : part.level === "more" ? "too many changes to draw; zoom in"
                : levelText(part.level) + (part.host ? `, told by ${part.host}` : "") + (part.text ? ` (${part.text})` : "") + `, for ${span(part.until - part.from)}`;
        const reach = view.span / canvas.clientWidth * 6;
        const write = (view.answer?.events ?? []).find((one) => (one.kind === "written" || one.kind === "set") && Math.abs(one.time - time) < reach);
        output.textContent = `${timeText(time)}: ${words}` + (write ? `; ${write.level} ${write.kind === "set" ? "set" : "written"} by ${write.host}` : "");
        draw();
    }

    let asking = 0;
    function refresh() {
        view.span = Math.min(MAX_SPAN, Math.max(MIN_SPAN, view.span));
        showSpan();
        draw();
        clearTimeout(asking);
        asking = setTimeout(async () => {
            const [from, until] = bounds();
            try {
                view.answer = await ask(`/api/v1/history?pin=${encodeURIComponent(pin)}&from=${Math.floor(Math.max(0, from))}&to=${Math.ceil(until)}&limit=5000`);
                draw();
            } catch (error) {
                output.textContent = `The history can't be read: ${error.message}`;
            }
        }, 120);
    }

    function zoom(factor, at) {
        const [from, until] = bounds();
        const centre = at ?? (view.live ? until : (from + until) / 2);
        const share = (until - centre) / view.span;
        view.span = Math.min(MAX_SPAN, Math.max(MIN_SPAN, view.span * factor));
        view.until = centre + share * view.span;
        view.live = view.live && share < 0.02;
        refresh();
    }

    function move(ms) {
        const [, until] = bounds();
        view.until = Math.min(now(), until + ms);
        view.live = view.until >= now() - view.span / 500;
        refresh();
    }

    const timeAt = (event) => {
        const box = canvas.getBoundingClientRect();
        const [from, until] = bounds();
        return from + (event.clientX - box.left) / box.width * (until - from);
    };
    let drag = null;
    canvas.addEventListener("pointerdown", (event) => {
        drag = { x: event.clientX };
        canvas.setPointerCapture(event.pointerId);
    });
    canvas.addEventListener("pointermove", (event) => {
        if (drag) {
            move((drag.x - event.clientX) / canvas.clientWidth * view.span);
            drag.x = event.clientX;
        } else {
            tell(timeAt(event));
        }
    });
    canvas.addEventListener("pointerup", () => { drag = null; });
    canvas.addEventListener("pointerleave", () => { view.at = null; output.textContent = ""; draw(); });
    canvas.addEventListener("wheel", (event) => {
        event.preventDefault();
        zoom(event.deltaY > 0 ? 1.25 : 0.8, timeAt(event));
    }, { passive: false });
    canvas.addEventListener("keydown", (event) => {
        const [from, until] = bounds();
        const at = view.at ?? (from + until) / 2;
        const keys = {
            "+": () => zoom(0.5, view.at ?? undefined), "-": () => zoom(2, view.at ?? undefined),
            ArrowLeft: () => (event.shiftKey ? move(-view.span / 4) : tell(Math.max(from, at - view.span / 60))),
            ArrowRight: () => (event.shiftKey ? move(view.span / 4) : tell(Math.min(until, at + view.span / 60))),
            End: () => { view.live = true; refresh(); },
        };
        if (keys[event.key]) {
            event.preventDefault();
            keys[event.key]();
        }
    });
    const timer = setInterval(() => view.live && (view.span < 7200e3 || Math.random() < 0.05) && refresh(), 1000);
    const scheme = matchMedia("(prefers-color-scheme: light)");
    scheme.addEventListener("change", draw);
    const off = on("pin", (changed) => changed.pin === pin && view.live && refresh());
    const resized = new ResizeObserver(() => draw());
    resized.observe(canvas);
    refresh();
    return {
        element: h("section", { className: "panel timeline", "aria-label": "Timeline" },
            h("div", { className: "tools" }, ...presets,
                button("\u2212", "Zoom out", () => zoom(2)), button("+", "Zoom in", () => zoom(0.5)),
                button("\u25c0", "Earlier", () => move(-view.span / 2)), button("\u25b6", "Later", () => move(view.span / 2)),
                button("Now", "Now: follow live", () => { view.live = true; refresh(); })),
            canvas, output,
            h("p", { className: "note" }, "Filled: low. Line: high. Nothing: not known. Hatched: nothing was heard. Triangles: writes. Wheel and + \u2212 zoom, drag and shift with arrows move, arrows read values.")),
        close() { off(); scheme.removeEventListener("change", draw); clearInterval(timer); clearTimeout(asking); resized.disconnect(); },
    };
}
