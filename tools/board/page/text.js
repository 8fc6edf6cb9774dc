// Times, levels and pins as text.

const clock = new Intl.DateTimeFormat(undefined, {
    year: "numeric", month: "2-digit", day: "2-digit", hour: "2-digit", minute: "2-digit",
    second: "2-digit", fractionalSecondDigits: 3, hourCycle: "h23",
});
const second = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23" });
const minute = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", hourCycle: "h23" });
const day = new Intl.DateTimeFormat(undefined, { month: "short", day: "2-digit" });

export const timeText = (ms) => clock.format(ms);

// The time alone if that is not long ago.
export const dayTimeText = (ms, now) => (now - ms < 12 * 3600e3 ? second : clock).format(ms);

// The label of a line on an axis with one every `step` ms. Midnight is labelled with its date.
export function axisText(ms, step) {
    const isMidnight = new Date(ms).getHours() === 0 && new Date(ms).getMinutes() === 0;
    return (step >= 86400e3 || (isMidnight && step >= 60e3) ? day : step < 60e3 ? second : minute).format(ms);
}

// "12 s", "3 min", "2 h 5 min", "3 d 4 h"
export function span(ms) {
    const s = Math.max(0, Math.floor(ms / 1000));
    if (s < 60) {
        return `${s} s`;
    }
    if (s < 3600) {
        return `${Math.floor(s / 60)} min`;
    }
    if (s < 86400) {
        const minutes = Math.floor((s % 3600) / 60);
        return `${Math.floor(s / 3600)} h${minutes ? ` ${minutes} min` : ""}`;
    }
    const hours = Math.floor((s % 86400) / 3600);
    return `${Math.floor(s / 86400)} d${hours ? ` ${hours} h` : ""}`;
}

export const levelText = (level) => (level === "L" ? "low" : level === "H" ? "high" : "not known");
export const nameOf = (pin) => pin.title || pin.name || pin.pin;

// Orders pins by address, inputs first.
export function rankOf(pin) {
    const parts = pin.split(":");
    const [, kind, number] = parts.pop().match(/^(\D+)(\d+)$/);
    const address = parts.reduce((sum, part) => sum * 256 + Number(part), 0);
    return address * 1024 + { in: 0, out: 256, c: 512 }[kind] + Number(number);
}

const KINDS = {
    told: "told", written: "written on the bus", set: "set from a board", "device-first": "first heard",
    "device-missing": "no longer answers", "device-back": "answers again",
    "gap-begin": "nothing heard from here", "gap-end": "heard again",
    "clock-set-back": "the clock was set back",
};
export const kindText = (kind) => KINDS[kind] ?? kind;

// The remaining duration of a write in ms; 0 if it has no limit, is over, or is not known.
export function running(pin, now) {
    const write = pin.write;
    return write && write.duration && pin.was === undefined ? Math.max(0, write.at + write.duration - now) : 0;
}

export function classOf(pin) {
    const level = pin.level ?? "unknown";
    return pin.state === "written" ? `${level} written` : level;
}

// Since when the level is known, or what was known last. Times that are not known don't count on.
export function ageText(pin, now) {
    if (pin.was !== undefined) {
        return pin.was && pin.state === "unknown" ? `was ${pin.was}` : "not known";
    }
    if (pin.level !== null) {
        return span(now - pin.since);
    }
    return pin.heard ? `last heard ${dayTimeText(pin.heard, now)}` : "never heard";
}

export function whoText(pin, now) {
    const left = running(pin, now);
    const write = pin.write;
    if (left > 0) {
        return `${write.level} ${(left / 1000).toFixed(1)} s more, ${write.by}`;
    }
    if (pin.state === "written") {
        return `${write.level} requested by ${write.by}`;
    }
    return write ? `written by ${write.by}` : "";
}
