// Times, levels and pins as text.

const DAY = { weekday: "short", day: "numeric", month: "short", year: "numeric" };
const TIME = { hour: "2-digit", minute: "2-digit", second: "2-digit", fractionalSecondDigits: 3, hourCycle: "h23" };
const clock = new Intl.DateTimeFormat(undefined, { ...DAY, ...TIME, weekday: undefined });
const dayOnly = new Intl.DateTimeFormat(undefined, DAY);
const clockOnly = new Intl.DateTimeFormat(undefined, TIME);
const second = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", second: "2-digit", hourCycle: "h23" });
const minute = new Intl.DateTimeFormat(undefined, { hour: "2-digit", minute: "2-digit", hourCycle: "h23" });
const day = new Intl.DateTimeFormat(undefined, { month: "short", day: "2-digit" });

const moment = new Intl.DateTimeFormat(undefined, { ...DAY, ...TIME, weekday: undefined, fractionalSecondDigits: undefined });
export const momentText = (ms) => moment.format(ms);
export const timeText = (ms) => clock.format(ms);
export const dayText = (ms) => dayOnly.format(ms);
export const clockText = (ms) => clockOnly.format(ms);
export const durationText = (ms) => (ms < 1000 ? `${ms} ms` : `${ms / 1000} s`);

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

// A sum of times, more exactly: "3.5 s", "12 min 5 s", "2 h 5 min"
export function lengthText(ms) {
    const s = Math.floor(ms / 1000);
    return s < 60 ? `${(ms / 1000).toFixed(1)} s` : s < 3600 ? `${Math.floor(s / 60)} min ${s % 60} s` : `${Math.floor(s / 3600)} h ${Math.floor((s % 3600) / 60)} min`;
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

// The remaining duration of a write in ms; 0 if it has no limit, is over, or is not known.
export function running(pin, now) {
    const write = pin.write;
    return write && write.duration && pin.was === undefined ? Math.max(0, write.at + write.duration - now) : 0;
}

export function classOf(pin) {
    const level = pin.level ?? "unknown";
    return pin.state === "written" ? `${level} written` : level;
}

// Since when the level is known. Times that are not known don't count on.
export function ageText(pin, now) {
    if (pin.was !== undefined) {
        return pin.was ? `was ${pin.was}` : "not known";
    }
    if (pin.level === null && !pin.heard) {
        return "never heard";
    }
    return pin.level === null ? `not known for ${span(now - pin.since)}` : span(now - pin.since);
}

export function whoText(pin, now) {
    const left = running(pin, now);
    const write = pin.write;
    if (left > 0) {
        return `\u25bc ${(left / 1000).toFixed(1)} s, ${write.by}`;
    }
    if (pin.state === "written") {
        return `${write.level} requested by ${write.by}`;
    }
    return write ? `\u25bc ${write.by}` : "";
}
