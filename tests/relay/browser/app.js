// What the page of the site tries in the browser. Its title tells the results, as JSON.
"use strict";

const SIZE = 20 << 20;
const hex = (buffer) => [...new Uint8Array(buffer)].map((b) => b.toString(16).padStart(2, "0")).join("");
const pause = (ms) => new Promise((done) => setTimeout(done, ms));
const text = async (path, options) => (await fetch(path, options)).text();

const tries = {
    async style() {
        return getComputedStyle(document.getElementById("text")).color;
    },
    async cookie() {
        return document.cookie;
    },
    async who() {
        return (await text("/who")).split("|");
    },
    async uploads() {
        const body = new Uint8Array(SIZE).map((_, i) => i % 251);
        const sum = hex(await crypto.subtle.digest("SHA-256", body));
        const answers = [];
        for (const method of ["POST", "PUT", "DELETE"]) {
            const answer = await text("/files/a?b=c&d", {method, body});
            answers.push(answer.replace(sum, "equal"));
        }
        return answers;
    },
    // Others get on while the download waits.
    async download() {
        const reader = (await fetch("/big")).body.getReader();
        let size = (await reader.read()).value.length, other = "";
        for (let i = 0; i < 10; ++i) {
            await pause(200);
            other = await text("/who");
        }
        for (let part = await reader.read(); !part.done; part = await reader.read()) {
            size += part.value.length;
        }
        return [size, other !== ""];
    },
    events() {
        return new Promise((done) => {
            const source = new EventSource("/events"), seen = [];
            source.onmessage = (event) => {
                seen.push(event.data);
                if (seen.length === 3) {
                    source.close();
                    done(seen.join());
                }
            };
        });
    },
    webSocket() {
        return new Promise((done) => {
            const socket = new WebSocket(`ws://${location.host}/ws`);
            let echoed = "";
            socket.onopen = () => socket.send("hello");
            socket.onmessage = (event) => {
                echoed = event.data;
                socket.close(1000);
            };
            socket.onclose = (event) => done([echoed, event.code, event.wasClean]);
        });
    },
    // Neither the relay's own page nor another box is this page's.
    async others() {
        const relay = `http://localhost:${location.port}/status.json`;
        return fetch(relay).then(() => "readable", () => "refused");
    },
};

(async () => {
    const results = {place: location.host + location.pathname};
    for (const [name, trial] of Object.entries(tries)) {
        const late = pause(60000).then(() => "late");
        results[name] = await Promise.race([trial().catch((error) => String(error)), late]);
    }
    document.title = JSON.stringify(results);
})();
