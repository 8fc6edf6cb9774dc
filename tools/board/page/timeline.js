// The level of a pin over time, with zooming and scrolling.
import { h } from "./dom.js";
import { ask, isCurrent, now, on, store } from "./store.js";
import { axisText, levelText, span, timeText } from "./text.js";

const TOP = 22; // of the levels; writes are above
const MIN_SPAN = 1000;
const MAX_SPAN = 400 * 86400e3;
const SPANS = [["10 min", 600e3], ["1 h", 3600e3], ["8 h", 8 * 3600e3], ["1 d", 86400e3], ["1 w", 7 * 86400e3], ["4 w", 28 * 86400e3]];
const STEPS = [1, 2, 5, 10, 20, 30, 60, 120, 300, 600, 1200, 1800, 3600, 7200, 14400, 21600, 43200, 86400, 172800, 604800, 1209600].map((s) => s * 1000);

const LEGEND = [["low", "low"], ["high", "high"], ["none", "not known"], ["gap", "nothing was heard"], ["write", "write"]];

// Without events that others overtook because the clock was set back: their times came again.
function latestRun(events) {
    let oldest = Infinity;
    return events.filter(({ time }) => time <= oldest + 1000 && ((oldest = Math.min(oldest, time)), true));
}

// Periods of one level, oldest first. After a gap, the level is unknown until it is told again.
export function stretches(answer, from, until) {
    const marks = [];
    const told = latestRun(answer.events.filter((one) => one.kind === "told"));
    for (const gap of answer.gaps) {
        marks.push({ time: gap.from, level: "gap", text: gap.reason });
        if (gap.until !== null) {
            marks.push({ time: gap.until, level: null });
        }
    }
    for (const event of told.reverse()) {
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

function drawAxis(context, width, bottom, [from, until], colour) {
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

// x gives the place of a time.
function drawParts(context, parts, x, bottom, colour) {
    const hatched = [];
    for (const part of parts) {
        const left = x(part.from);
        const wide = Math.max(1, x(part.until) - left);
        if (part.level === "L") {
            context.fillStyle = colour.lit;
            context.fillRect(left, TOP, wide, bottom - TOP);
        } else if (part.level === "H") {
            context.fillStyle = colour.dim;
            context.fillRect(left, bottom - 4, wide, 4);
        } else if (part.level === "gap" || part.level === "more") {
            hatched.push([part.level === "gap" ? colour.dim : colour.lit, left, Math.max(4, wide)]);
        }
    }
    // Drawn last and wide enough, so that short gaps are visible.
    for (const [shade, left, wide] of hatched) {
        hatch(context, left, wide, TOP, bottom - TOP, shade, colour.card);
    }
}

const isWrite = (event) => event.kind === "written" || event.kind === "set";

function drawWrites(context, events, x, colour) {
    context.fillStyle = colour.asked;
    for (const event of events.filter(isWrite)) {
        const left = x(event.time);
        context.beginPath();
        context.moveTo(left, TOP - 4);
        context.lineTo(left - 5, TOP - 14);
        context.lineTo(left + 5, TOP - 14);
        context.fill();
    }
}

// Where the clock was set back: an hour may have two pasts, of which the later one is drawn.
function drawSetBacks(context, all, x, bottom, colour) {
    context.strokeStyle = colour.lit;
    context.setLineDash([4, 4]);
    for (const { time } of all) {
        context.beginPath();
        context.moveTo(x(time), 0);
        context.lineTo(x(time), bottom);
        context.stroke();
    }
    context.setLineDash([]);
}

const colours = () => {
    const style = getComputedStyle(document.documentElement);
    return Object.fromEntries(["lit", "dim", "line", "text", "card", "asked"].map((name) => [name, style.getPropertyValue(`--${name}`).trim()]));
};

// A panel with the timeline of a pin in `element`, until close().
export class Timeline {
    #pin;
    #span = 600e3;
    #until = 0; // the right end, unless it is live
    #live = true;
    #answer = null; // from the history
    #parts = [];
    #at = null; // the time whose values are shown
    #asking = 0;
    #fresh = 0; // when it was refreshed last; live, it is again for every pixel or so
    #canvas = h("canvas", { tabIndex: 0, role: "img", "aria-label": "Timeline of the pin" });
    #output = h("output", { "aria-live": "polite" });
    #presets;
    #ends;

    constructor(pin) {
        this.#pin = pin;
        this.#presets = SPANS.map(([text, ms]) => h("button", { type: "button", on: { click: () => { this.#span = ms; this.#follow(); } } }, text));
        const button = (text, label, action) => h("button", { type: "button", "aria-label": label, on: { click: action } }, text);
        this.element = h("section", { className: "panel timeline", "aria-label": "Timeline" },
            h("div", { className: "tools" }, ...this.#presets,
                button("\u2212", "Zoom out", () => this.#zoom(2)), button("+", "Zoom in", () => this.#zoom(0.5)),
                button("\u25c0", "Earlier", () => this.#move(-this.#span / 2)), button("\u25b6", "Later", () => this.#move(this.#span / 2)),
                button("Now", "Now: follow live", () => this.#follow())),
            this.#canvas,
            h("div", { className: "reading" },
                h("ul", { className: "legend" }, ...LEGEND.map(([name, text]) => h("li", {}, h("span", { className: `swatch ${name}` }), text))),
                this.#output),
            h("p", { className: "note keys" }, "Keys: + \u2212 zoom, arrows read values, shift with arrows moves, End follows live."));
        this.#listen();
        this.#refresh();
    }

    close() {
        clearTimeout(this.#asking);
        this.#ends.forEach((end) => end());
    }

    #bounds() {
        const until = this.#live ? now() : this.#until;
        return [until - this.#span, until];
    }

    #draw() {
        const ratio = devicePixelRatio;
        const [width, height] = [this.#canvas.clientWidth, this.#canvas.clientHeight];
        this.#canvas.width = width * ratio;
        this.#canvas.height = height * ratio;
        const context = this.#canvas.getContext("2d");
        context.scale(ratio, ratio);
        context.font = `${Math.max(11, height / 12)}px system-ui, sans-serif`;
        const [from, until] = this.#bounds();
        const x = (time) => (time - from) / (until - from) * width;
        const colour = colours();
        const bottom = height - 24;
        this.#parts = this.#answer ? stretches(this.#known(), from, until) : [];
        drawAxis(context, width, bottom, [from, until], colour);
        drawParts(context, this.#parts, x, bottom, colour);
        drawWrites(context, this.#answer?.events ?? [], x, colour);
        drawSetBacks(context, this.#answer?.set_back ?? [], x, bottom, colour);
        if (this.#at !== null) {
            context.strokeStyle = colour.text;
            context.beginPath();
            context.moveTo(x(this.#at), 0);
            context.lineTo(x(this.#at), bottom);
            context.stroke();
        }
    }

    // Since the board is lost, nothing is known.
    #known() {
        const gap = { from: store.since + store.offset, until: null, reason: "the board can't be reached" };
        return isCurrent() ? this.#answer : { ...this.#answer, gaps: [...this.#answer.gaps, gap] };
    }

    #tell(time) {
        this.#at = time;
        const part = this.#parts.find((one) => one.from <= time && time < one.until);
        const words = !part ? "" : part.level === "gap" ? part.text
            : part.level === "more" ? "too many changes to draw; zoom in"
                : levelText(part.level) + (part.host ? `, told by ${part.host}` : "") + (part.text ? ` (${part.text})` : "") + `, for ${span(part.until - part.from)}`;
        const reach = this.#span / this.#canvas.clientWidth * 6;
        const write = (this.#answer?.events ?? []).find((one) => isWrite(one) && Math.abs(one.time - time) < reach);
        const jump = this.#answer?.set_back?.find((one) => Math.abs(one.time - time) < reach);
        this.#output.textContent = `${timeText(time)}: ${words}` + (jump ? `; the clock was set back by ${span(jump.by)}` : "") + (write ? `; ${write.level} ${write.kind === "set" ? "set" : "written"} by ${write.host}` : "");
        this.#draw();
    }

    #refresh() {
        this.#fresh = now();
        this.#span = Math.min(MAX_SPAN, Math.max(MIN_SPAN, this.#span));
        this.#presets.forEach((preset, i) => preset.setAttribute("aria-pressed", String(SPANS[i][1] === this.#span)));
        this.#draw();
        clearTimeout(this.#asking);
        this.#asking = setTimeout(() => this.#load(), 120);
    }

    async #load() {
        const [from, until] = this.#bounds();
        try {
            this.#answer = await ask(`api/v1/history?pin=${encodeURIComponent(this.#pin)}&from=${Math.floor(Math.max(0, from))}&to=${Math.ceil(until)}&limit=5000`);
            this.#draw();
        } catch (error) {
            this.#output.textContent = `The history can't be read: ${error.message}`;
        }
    }

    #follow() {
        this.#live = true;
        this.#refresh();
    }

    #zoom(factor, at) {
        const [from, until] = this.#bounds();
        const centre = at ?? (this.#live ? until : (from + until) / 2);
        const share = (until - centre) / this.#span;
        this.#span = Math.min(MAX_SPAN, Math.max(MIN_SPAN, this.#span * factor));
        this.#until = centre + share * this.#span;
        this.#live = this.#live && share < 0.02;
        this.#refresh();
    }

    #move(ms) {
        const [, until] = this.#bounds();
        this.#until = Math.min(now(), until + ms);
        this.#live = this.#until >= now() - this.#span / 500;
        this.#refresh();
    }

    #listen() {
        const timer = setInterval(() => this.#live && now() - this.#fresh >= this.#span / 1000 && this.#refresh(), 1000);
        const scheme = matchMedia("(prefers-color-scheme: light)");
        const draw = () => this.#draw();
        scheme.addEventListener("change", draw);
        const resized = new ResizeObserver(draw);
        resized.observe(this.#canvas);
        this.#ends = [
            () => clearInterval(timer), () => scheme.removeEventListener("change", draw), () => resized.disconnect(),
            on("pin", (changed) => changed.pin === this.#pin && this.#live && this.#refresh()),
            on("status", draw),
        ];
        this.#listenToPointer();
        this.#canvas.addEventListener("keydown", (event) => this.#onKey(event));
    }

    #listenToPointer() {
        const canvas = this.#canvas;
        const timeAt = (event) => {
            const box = canvas.getBoundingClientRect();
            const [from, until] = this.#bounds();
            return from + (event.clientX - box.left) / box.width * (until - from);
        };
        let drag = null; // the last place
        canvas.addEventListener("pointerdown", (event) => {
            drag = event.clientX;
            canvas.setPointerCapture(event.pointerId);
        });
        canvas.addEventListener("pointermove", (event) => {
            if (drag !== null) {
                this.#move((drag - event.clientX) / canvas.clientWidth * this.#span);
                drag = event.clientX;
            } else {
                this.#tell(timeAt(event));
            }
        });
        canvas.addEventListener("pointerup", () => { drag = null; });
        canvas.addEventListener("pointerleave", () => {
            this.#at = null;
            this.#output.textContent = "";
            this.#draw();
        });
        canvas.addEventListener("wheel", (event) => {
            event.preventDefault();
            this.#zoom(event.deltaY > 0 ? 1.25 : 0.8, timeAt(event));
        }, { passive: false });
    }

    #onKey(event) {
        const [from, until] = this.#bounds();
        const at = this.#at ?? (from + until) / 2;
        const step = this.#span / 60;
        const keys = {
            "+": () => this.#zoom(0.5, this.#at ?? undefined), "-": () => this.#zoom(2, this.#at ?? undefined),
            ArrowLeft: () => (event.shiftKey ? this.#move(-this.#span / 4) : this.#tell(Math.max(from, at - step))),
            ArrowRight: () => (event.shiftKey ? this.#move(this.#span / 4) : this.#tell(Math.min(until, at + step))),
            End: () => this.#follow(),
        };
        if (keys[event.key]) {
            event.preventDefault();
            keys[event.key]();
        }
    }
}
