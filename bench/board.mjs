// Measures the board as its viewers see it:  node board.mjs NODE_MODULES SECONDS
// Run by tests/tools/board/world.sh. Sends reports to the bus as a device would, and prints a line for
// each figure: its name, the measured value, the target, and whether it was met.
import { execFileSync, spawn } from "node:child_process";
import dgram from "node:dgram";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import http from "node:http";
import { createRequire } from "node:module";
import { setTimeout as sleep } from "node:timers/promises";

const [modules, seconds] = [process.argv[2], Number(process.argv[3])];
const puppeteer = createRequire(`${modules}/`)("puppeteer-core");
const RATE = 1000;
const VIEWERS = 200;
const pid = () => readFileSync("/run/board.pid", "ascii").trim();
let missed = 0;

function tell(what, measured, unit, wanted, met) {
    console.log(`${what.padEnd(52)} ${String(measured).padStart(9)} ${unit.padEnd(6)} ${wanted.padEnd(14)} ${met ? "met" : "MISSED"}`);
    missed += met ? 0 : 1;
}

// A board keeps 4,000 pins of one host.
async function openSocket(address) {
    const socket = dgram.createSocket("udp4");
    await new Promise((done) => socket.bind(0, address, done));
    socket.setMulticastInterface(address);
    return socket;
}
const others = ["10.77.0.11", "10.77.0.12", "10.77.0.13"];
others.forEach((address) => execFileSync("ip", ["addr", "add", `${address}/24`, "dev", "eth0"]));
const sockets = await Promise.all(["10.77.0.1", ...others].map(openSocket));
let tid = Math.floor(Date.now() / 1000);

function report(items, socket = sockets[0]) {
    const packet = Buffer.alloc(22 + items.length * 6);
    packet.set([3, 0, 2, 7]);
    packet.writeUInt32BE(++tid >>> 0, 4);
    packet.write("INDI", 16);
    packet.writeUInt16BE(items.length, 20);
    items.forEach(([tag, low], i) => {
        packet.writeUInt32BE(tag, 22 + i * 6);
        packet.set([7, low ? 1 : 0], 26 + i * 6);
    });
    socket.send(packet, 2055, "239.192.255.4");
}

async function ask(path) {
    const response = await fetch(`http://127.0.0.1:8093${path}`);
    return response.text();
}
const figure = async (name) => Number((await ask("/metrics")).match(new RegExp(`^orvex_board_${name} (.*)`, "m"))[1]);
const cpu = () => readFileSync(`/proc/${pid()}/stat`, "ascii").split(") ")[1].split(" ").slice(11, 13).reduce((a, b) => a + Number(b), 0) / 100;
const resident = () => Number(readFileSync(`/proc/${pid()}/status`, "ascii").match(/VmRSS:\s*(\d+)/)[1]) / 1024;

const profile = mkdtempSync("/tmp/board-bench-");
const browser = await puppeteer.launch({
    executablePath: "/usr/bin/chromium", userDataDir: profile,
    args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
        "--disable-component-update", "--disable-sync"],
});
const median = (times) => times.sort((a, b) => a - b)[times.length >> 1];

// The delays until the lamp of the pin, which must be high at first, follows each of count reports. Without a name, it is
// the only one of the page.
async function timesToLamp(page, tag, name, count) {
    await page.evaluate((link) => {
        globalThis.seen = [];
        new MutationObserver((all) => {
            if (all.some(({ target }) => !link || target.hash === link)) {
                globalThis.seen.push(performance.timeOrigin + performance.now());
            }
        }).observe(document.querySelector("main"), { attributes: true, attributeFilter: ["class"], subtree: true });
    }, name && `#/pin/${name}`);
    const sent = [];
    for (let i = 0; i < count; ++i) {
        sent.push(performance.timeOrigin + performance.now());
        report([[tag, i % 2 === 0]]);
        report([[tag, i % 2 === 0]]); // twice, as devices do: otherwise a later one would count as a copy
        await sleep(50 + Math.random() * 20);
    }
    await sleep(500);
    const seen = await page.evaluate(() => globalThis.seen);
    return seen.length === count ? sent.map((time, i) => seen[i] - time) : [Infinity];
}

async function measureLatency() {
    const tag = (0x0708 << 8 | 13);
    report([[tag, false]]);
    await sleep(500);
    const page = await browser.newPage();
    await page.goto("http://127.0.0.1:8093/");
    await page.waitForSelector('a[href="#/pin/7:8:in1"]');
    await sleep(4000); // until reads of the pin have gone unanswered and the page is idle
    const time = median(await timesToLamp(page, tag, "7:8:in1", 101));
    tell("datagram to changed lamp, median of 101", time.toFixed(1), "ms", "below 20", time < 20);
    await page.goto("http://127.0.0.1:8093/lamp/7:8:in1");
    await page.waitForSelector("section.unknown");
    await sleep(4000);
    const whole = median(await timesToLamp(page, tag, "", 101));
    await page.close();
    tell("the same, to a lamp that fills the screen", whole.toFixed(1), "ms", "below 20", whole < 20);
}

async function measureTraffic() {
    const agent = new http.Agent({ maxSockets: VIEWERS + 10 });
    let first = 0;
    const viewers = [];
    for (let i = 0; i < VIEWERS; ++i) {
        viewers.push(await new Promise((done) => http.get({ port: 8093, path: "/api/v1/events", agent }, (answer) => {
            let rest = "";
            answer.on("data", (data) => {
                if (i === 0) {
                    const lines = (rest + data).split("\n");
                    rest = lines.pop();
                    first += lines.filter((line) => line.startsWith("event: pin")).length;
                }
            });
            answer.on("error", () => {});
            done(answer);
        })));
    }
    const [rows, before, start] = [await figure("history_rows"), cpu(), performance.now()];
    const total = RATE * seconds;
    for (let i = 0; i < total;) {
        for (const due = (performance.now() - start) / 1000 * RATE; i < due && i < total; ++i) {
            report([[0x080000 + (i % 500) * 256 + 13, Math.floor(i / 500) % 2 === 0]]);
        }
        await sleep(2);
    }
    const used = (cpu() - before) / ((performance.now() - start) / 1000);
    await sleep(2000);
    const kept = await figure("history_rows") - rows;
    tell(`changes a second for ${seconds} s, ${VIEWERS} viewers: in the history`, kept, "", `${total} or more`, kept >= total);
    tell("the same, in the stream of one", first, "", `${total} or more`, first >= total);
    tell("processor time meanwhile", used.toFixed(2), "cores", "below 0.5", used < 0.5);
    viewers.forEach((answer) => answer.destroy());
}

async function measureKill() {
    const start = performance.now();
    let sent = 0;
    while (performance.now() - start < 3000) {
        for (const due = performance.now() - start; sent < due; ++sent) {
            report([[0x080000 + (sent % 500) * 256 + 12, Math.floor(sent / 500) % 2 === 0]]);
        }
        await sleep(2);
    }
    const rows = await figure("history_rows");
    process.kill(Number(pid()), "SIGKILL");
    await sleep(300);
    spawn("bash", ["/run/board.sh"], { stdio: "ignore" });
    await sleep(2000);
    const lost = rows - await figure("history_rows");
    tell("killed in 1000 changes a second: rows lost", Math.max(0, lost), "", "0", lost <= 0);
}

async function tellManyPins() {
    for (let address = 0; address < 1000; ++address) {
        const items = [];
        for (let circuit = 4; circuit <= 13; ++circuit) {
            items.push([0x100000 + address * 256 + circuit, address % 2 === 0]);
        }
        report(items, sockets[(address + 1) % sockets.length]);
        report(items, sockets[(address + 1) % sockets.length]);
        if (address % 20 === 0) {
            await sleep(20);
        }
    }
    await sleep(1000);
}

async function measurePins() {
    await tellManyPins();
    await ask("/api/v1/pins");
    const pins = await figure("pins");
    tell("resident with 10,000 pins and more", resident().toFixed(1), "MiB", "below 48", pins >= 10000 && resident() < 48);

    const page = await browser.newPage();
    await page.evaluateOnNewDocument(() => {
        const watch = new MutationObserver(() => {
            if (document.querySelector(".lamp")) {
                watch.disconnect();
                requestAnimationFrame(() => setTimeout(() => { globalThis.lamps = performance.now(); }));
            }
        });
        watch.observe(document, { childList: true, subtree: true });
    });
    await page.goto("http://127.0.0.1:8093/");
    await page.waitForFunction(() => globalThis.lamps);
    const first = await page.evaluate(() => globalThis.lamps);
    tell("the same: page opened to first lamps", first.toFixed(0), "ms", "below 1000", first < 1000);
    await page.waitForFunction((count) => document.querySelectorAll(".lamp").length >= count, {}, pins);
    await sleep(5000); // until reads of the pins have gone unanswered
    const keys = await page.evaluate(async () => {
        const input = document.getElementById("search");
        const times = [];
        for (const text of ["1", "16", "16:", "16:1", "16:12", "16:12:", "16:12:o", "16:12:", "16:1", "16", "1", ""]) {
            const start = performance.now();
            input.value = text;
            input.dispatchEvent(new Event("input"));
            await new Promise((done) => requestAnimationFrame(() => setTimeout(done)));
            times.push(performance.now() - start);
        }
        return times;
    });
    const key = median(keys);
    tell("the same: letter of a search to picture, median of 12", key.toFixed(0), "ms", "below 50", key < 50);
    const lamp = median(await timesToLamp(page, 0x100000 + 3 * 256 + 13, "16:3:in1", 51));
    tell("the same: datagram to changed lamp, median of 51", lamp.toFixed(1), "ms", "below 20", lamp < 20);
    await page.close();
}

await sleep(2000);
await measureLatency();
await measureTraffic();
await measureKill();
await measurePins();
await browser.close();
rmSync(profile, { recursive: true, force: true });
process.exit(missed ? 1 : 0);
