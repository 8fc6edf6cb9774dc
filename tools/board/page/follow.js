// Follows the board's stream of events, and connects again when it has ended.

const AGAIN_IN = 3000; // ms
const REFUSED_FOR = 10000;
const SILENT_FOR = 12000; // the board sends a beat every 5 s

// What the board answers is a reason; that it can't be reached is none.
class Refusal extends Error {
    mustLogIn = false;
}

async function refusalOf(response) {
    const text = (await response.text()).trim();
    const refusal = new Refusal(text.startsWith("{") ? JSON.parse(text).error : text);
    refusal.mustLogIn = response.status === 401;
    return refusal;
}

function parse(block) {
    const fields = block.split("\n").map((line) => [line.slice(0, line.indexOf(":")), line.slice(line.indexOf(":") + 2)]);
    const { id, event, data } = Object.fromEntries(fields);
    return { name: event, id, data: data === undefined ? null : JSON.parse(data) };
}

async function read(signal, take) {
    const end = new AbortController();
    const stop = () => end.abort();
    let silent = setTimeout(stop, SILENT_FOR);
    signal?.addEventListener("abort", stop);
    try {
        const url = new URL("api/v1/events", import.meta.url);
        const response = await fetch(url, { signal: end.signal, cache: "no-store" });
        if (!response.ok) {
            throw await refusalOf(response);
        }
        take({ name: "open" });
        let text = "";
        for (const reader = response.body.pipeThrough(new TextDecoderStream()).getReader(); ;) {
            const { value, done } = await reader.read();
            if (done) {
                return;
            }
            clearTimeout(silent);
            silent = setTimeout(stop, SILENT_FOR);
            const blocks = (text + value).split("\n\n");
            text = blocks.pop();
            blocks.map(parse).filter(({ name }) => name).forEach(take);
        }
    } finally {
        clearTimeout(silent);
        signal?.removeEventListener("abort", stop);
    }
}

// Calls take() with {name, id, data} for each event, with {name: "open"} when the stream is connected, and with
// {name: "lost", reason, mustLogIn} when it is not: what happens meanwhile is missed.
export async function follow(take, signal = null) {
    while (!signal?.aborted) {
        let reason = "";
        let mustLogIn = false;
        try {
            await read(signal, (event) => {
                if (event.name === "refused") {
                    throw new Refusal(event.data.reason);
                }
                take(event);
            });
        } catch (error) {
            reason = error instanceof Refusal ? error.message : "";
            mustLogIn = error.mustLogIn ?? false;
        }
        take({ name: "lost", reason, mustLogIn });
        await new Promise((done) => { setTimeout(done, reason ? REFUSED_FOR : AGAIN_IN); });
    }
}
