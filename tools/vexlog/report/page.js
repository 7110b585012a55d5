"use strict";
(() => {
    const data = JSON.parse(document.getElementById("data").textContent);
    const FAILED = -1, OPEN = -2, WITHOUT_BEGIN = -3;
    const FIELDS = 4;
    const byId = (id) => document.getElementById(id);
    const element = (name, text, parent) => {
        const node = document.createElement(name);
        if (text !== undefined) node.textContent = text;
        if (parent) parent.append(node);
        return node;
    };
    const svg = (name, attributes, parent) => {
        const node = document.createElementNS("http://www.w3.org/2000/svg", name);
        for (const [key, value] of Object.entries(attributes)) node.setAttribute(key, value);
        if (parent) parent.append(node);
        return node;
    };

    // The log's local time, handled as if it were UTC.
    const two = (n, width = 2) => String(n).padStart(width, "0");
    const timeOfDay = (us, digits = 6) => {
        const total = data.start + us;
        const date = new Date(Math.floor(total / 1000));
        const fraction = two(((total % 1000000) + 1000000) % 1000000, 6).slice(0, digits);
        return `${two(date.getUTCHours())}:${two(date.getUTCMinutes())}:${two(date.getUTCSeconds())}` +
            (digits ? `.${fraction}` : "");
    };
    const dateAndTime = (us) => new Date(Math.floor((data.start + us) / 1000)).toISOString().slice(0, 10) + " " + timeOfDay(us);
    const duration = (us) => us < 1000 ? `${us} µs` : us < 1e6 ? `${+(us / 1e3).toPrecision(4)} ms`
        : us < 12e7 ? `${+(us / 1e6).toPrecision(4)} s` : us < 72e8 ? `${+(us / 6e7).toPrecision(3)} min`
        : `${+(us / 36e8).toPrecision(3)} h`;

    const dark = matchMedia("(prefers-color-scheme: dark)");
    // Neighbouring functions get hues far apart, none of them the red of failures; the lightness alternates for
    // readers who see few hues.
    const colour = (f) => {
        const hue = 35 + (175 + f * 114.59) % 290;
        const light = dark.matches ? [66, 54, 74][f % 3] : [44, 56, 34][f % 3];
        return `hsl(${hue.toFixed(0)} 62% ${light}%)`;
    };
    const variable = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

    // The calls of each thread in the order of time, as indexes into data.calls.
    const lanes = data.threads.map(([pid, thread]) => ({ pid, thread, calls: [], failed: 0, open: 0, busy: 0, longest: 0 }));
    const failures = [];
    const calls = data.calls;
    for (let i = 0; i < calls.length; i += FIELDS) {
        const lane = lanes[calls[i]];
        const took = calls[i + 3];
        lane.calls.push(i);
        if (took === FAILED) { lane.failed++; failures.push(i); }
        if (took === OPEN) lane.open++;
        if (took > 0) { lane.busy += took; lane.longest = Math.max(lane.longest, took); }
    }
    const byBegin = (a, b) => calls[a + 2] - calls[b + 2];
    for (const lane of lanes) lane.calls.sort(byBegin);
    failures.sort(byBegin);

    const canvas = byId("timeline"), box = byId("timeline-box"), tip = byId("tip");
    const context = canvas.getContext("2d");
    const ROW = 20, HEADER = 24, GUTTER = 128, MOST_LANES = 1000;
    // Rows of the canvas: a heading for each process, then its threads.
    const rows = [];
    lanes.slice(0, MOST_LANES).forEach((lane, n, all) => {
        if (n === 0 || all[n - 1].pid !== lane.pid) rows.push({ pid: lane.pid });
        rows.push({ lane });
    });
    const whole = { from: 0, to: Math.max(data.end, 1) };
    const margin = Math.max((whole.to - whole.from) * 0.01, 1);
    whole.from -= margin;
    whole.to += margin;
    let view = { ...whole };
    let width = 0;
    const height = HEADER + Math.max(rows.length, 1) * ROW + 4;
    const x = (us) => GUTTER + (us - view.from) / (view.to - view.from) * (width - GUTTER);
    const us = (px) => view.from + (px - GUTTER) / (width - GUTTER) * (view.to - view.from);

    const niceStep = (span) => {
        const steps = [1, 2, 5, 10, 20, 50, 100, 200, 500].flatMap((n) => [n, n * 1e3])
            .concat([1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 21600, 43200, 86400, 604800].map((n) => n * 1e6));
        return steps.sort((a, b) => a - b).find((step) => step >= span) || 2592e9;
    };
    const firstFrom = (lane, from) => {
        let low = 0, high = lane.calls.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (calls[lane.calls[middle] + 2] < from) low = middle + 1; else high = middle;
        }
        return low;
    };

    const drawAxis = () => {
        const step = niceStep((view.to - view.from) / Math.max((width - GUTTER) / 110, 1));
        const digits = step >= 1e6 ? 0 : step >= 1e3 ? 3 : 6;
        context.textAlign = "center";
        // Ticks are at round times of day.
        const offset = data.start % step;
        for (let at = Math.ceil((view.from + offset) / step) * step - offset; at <= view.to; at += step) {
            const px = Math.round(x(at)) + 0.5;
            context.strokeStyle = variable("--line");
            context.beginPath();
            context.moveTo(px, HEADER - 4);
            context.lineTo(px, height);
            context.stroke();
            context.fillStyle = variable("--dim");
            // A label may reach over the names on the left. A label that would be cut off on the right is left out.
            const label = timeOfDay(Math.round(at), digits);
            if (px >= GUTTER && px + context.measureText(label).width / 2 <= width) context.fillText(label, px, 14);
        }
    };
    const drawCall = (i, top, colours) => {
        const left = x(calls[i + 2]);
        const took = calls[i + 3];
        context.fillStyle = colours.calls[calls[i + 1]];
        if (took >= 0) {
            context.fillRect(left, top + 4, Math.max(x(calls[i + 2] + took) - left, 1.5), ROW - 8);
        } else if (took === FAILED) {
            context.fillStyle = colours.bad;
            context.beginPath();
            context.moveTo(left, top + 3);
            context.lineTo(left + 5, top + ROW - 3);
            context.lineTo(left - 5, top + ROW - 3);
            context.fill();
        } else if (took === OPEN) {
            context.globalAlpha = 0.35;
            context.fillRect(left, top + 7, Math.max(x(data.end) - left, 3), ROW - 14);
            context.globalAlpha = 1;
            context.fillRect(left, top + 4, 2, ROW - 8);
        } else {
            context.beginPath();
            context.arc(left, top + ROW / 2, 2.5, 0, 7);
            context.fill();
        }
    };
    const draw = () => {
        const scale = window.devicePixelRatio || 1;
        width = Math.max(box.clientWidth, GUTTER + 1);
        canvas.width = Math.round(width * scale);
        canvas.height = Math.round(height * scale);
        context.setTransform(scale, 0, 0, scale, 0, 0);
        context.font = "12px system-ui, 'DejaVu Sans', sans-serif";
        context.fillStyle = variable("--card");
        context.fillRect(0, 0, width, height);
        const colours = { calls: data.functions.map((_, f) => colour(f)), bad: variable("--bad") };
        const stripes = [variable("--card"), variable("--stripe")];
        rows.forEach((row, n) => {
            context.fillStyle = row.lane ? stripes[n % 2] : variable("--process");
            context.fillRect(0, HEADER + n * ROW, width, ROW);
        });
        drawAxis();
        context.save();
        context.beginPath();
        context.rect(GUTTER, HEADER, width - GUTTER, height);
        context.clip();
        rows.forEach((row, n) => {
            if (!row.lane) return;
            const list = row.lane.calls;
            const marks = [];
            // Calls of a thread do not overlap. One that reaches into view is not longer than the longest.
            for (let k = firstFrom(row.lane, view.from - row.lane.longest - 1); k < list.length && calls[list[k] + 2] <= view.to; ++k) {
                if (calls[list[k] + 3] === FAILED) marks.push(list[k]);
                else drawCall(list[k], HEADER + n * ROW, colours);
            }
            const last = list[list.length - 1];
            if (last !== undefined && calls[last + 3] === OPEN && calls[last + 2] < view.from) drawCall(last, HEADER + n * ROW, colours);
            for (const i of marks) drawCall(i, HEADER + n * ROW, colours);
        });
        context.restore();
        context.textAlign = "left";
        rows.forEach((row, n) => {
            context.fillStyle = variable(row.lane ? "--dim" : "--text");
            context.fillText(row.lane ? `T${row.lane.thread}` : `Process ${row.pid}`, row.lane ? 18 : 8, HEADER + n * ROW + 14);
        });
        byId("shown").textContent = `${timeOfDay(Math.round(view.from), 3)} to ${timeOfDay(Math.round(view.to), 3)} (${duration(Math.round(view.to - view.from))})`;
    };

    let pending = false;
    const show = (from, to) => {
        const span = Math.min(Math.max(to - from, 20), whole.to - whole.from);
        const begin = Math.min(Math.max(from, whole.from), whole.to - span);
        view = { from: begin, to: begin + span };
        if (!pending) {
            pending = true;
            requestAnimationFrame(() => { pending = false; draw(); });
        }
    };
    const zoom = (factor, px = (width + GUTTER) / 2) => {
        const at = us(px);
        show(at - (at - view.from) * factor, at + (view.to - at) * factor);
    };
    const move = (share) => show(view.from + (view.to - view.from) * share, view.to + (view.to - view.from) * share);
    const all = () => show(whole.from, whole.to);
    byId("zoom-in").addEventListener("click", () => zoom(0.5));
    byId("zoom-out").addEventListener("click", () => zoom(2));
    byId("zoom-all").addEventListener("click", all);
    const keys = { ArrowLeft: () => move(-0.2), ArrowRight: () => move(0.2), "+": () => zoom(0.5), "=": () => zoom(0.5), "-": () => zoom(2), 0: all };
    canvas.addEventListener("keydown", (event) => {
        if (keys[event.key] && !event.ctrlKey && !event.metaKey) { keys[event.key](); event.preventDefault(); }
    });
    canvas.addEventListener("wheel", (event) => {
        if (!event.ctrlKey) return;
        zoom(event.deltaY > 0 ? 1.25 : 0.8, event.offsetX);
        event.preventDefault();
    }, { passive: false });
    let drag = null;
    canvas.addEventListener("pointerdown", (event) => { drag = event.offsetX; canvas.setPointerCapture(event.pointerId); });
    canvas.addEventListener("pointerup", () => { drag = null; });
    canvas.addEventListener("dblclick", (event) => zoom(0.25, event.offsetX));

    // The call under the pointer, or the nearest one within a few pixels.
    const callAt = (px, py) => {
        const row = rows[Math.floor((py - HEADER) / ROW)];
        if (!row || !row.lane || px < GUTTER) return undefined;
        const list = row.lane.calls;
        const reach = us(px + 5) - us(px);
        let best, distance = reach;
        for (let k = firstFrom(row.lane, us(px) - reach - row.lane.longest - 1); k < list.length && calls[list[k] + 2] <= us(px) + reach; ++k) {
            const begin = calls[list[k] + 2];
            const end = begin + Math.max(calls[list[k] + 3], 0);
            const away = us(px) < begin ? begin - us(px) : Math.max(us(px) - end, 0);
            if (away <= distance) { distance = away; best = list[k]; }
        }
        return best;
    };
    const describe = (i) => {
        const took = calls[i + 3];
        const outcome = took >= 0 ? duration(took) : took === FAILED ? "refused or failed"
            : took === OPEN ? "open at the end of the log" : "only its end is in the log";
        const [pid, thread] = data.threads[calls[i]];
        return `${data.functions[calls[i + 1]].name}: ${outcome}\n${dateAndTime(calls[i + 2])}\nP${pid} T${thread}`;
    };
    canvas.addEventListener("pointermove", (event) => {
        if (drag !== null) {
            const shift = us(drag) - us(event.offsetX);
            drag = event.offsetX;
            show(view.from + shift, view.to + shift);
        }
        const found = drag === null ? callAt(event.offsetX, event.offsetY) : undefined;
        tip.hidden = found === undefined;
        if (found === undefined) return;
        tip.textContent = describe(found);
        tip.style.left = `${Math.max(Math.min(event.offsetX + 14, width - tip.offsetWidth - 8), 0)}px`;
        tip.style.top = `${event.offsetY + tip.offsetHeight + 18 > height ? Math.max(event.offsetY - tip.offsetHeight - 8, 0) : event.offsetY + 16}px`;
    });
    canvas.addEventListener("pointerleave", () => { tip.hidden = true; });

    const drawLegend = () => {
        const list = byId("legend");
        list.replaceChildren();
        const used = new Set();
        for (let i = 1; i < calls.length; i += FIELDS) used.add(calls[i]);
        const sorted = [...used].sort((a, b) => data.functions[a].name < data.functions[b].name ? -1 : 1).slice(0, 40);
        for (const f of sorted) {
            const item = element("li", undefined, list);
            svg("rect", { width: 12, height: 12, rx: 2, fill: colour(f) }, svg("svg", { viewBox: "0 0 12 12", "aria-hidden": true }, item));
            item.append(data.functions[f].name);
        }
        const item = element("li", undefined, list);
        svg("path", { d: "M6 0L12 12H0Z", fill: variable("--bad") }, svg("svg", { viewBox: "0 0 12 12", "aria-hidden": true }, item));
        item.append("refused or failed");
    };

    const drawHistograms = () => {
        const parent = byId("histograms");
        parent.replaceChildren();
        const measured = data.functions.map((f, n) => ({ ...f, n })).filter((f) => f.bars.length)
            .sort((a, b) => a.name < b.name ? -1 : 1);
        if (!measured.length) { element("p", "No call has both records.", parent).className = "hint"; return; }
        const ends = measured.flatMap((f) => [f.bars[0], f.bars[f.bars.length - 2] * 1.25]);
        const decadeBelow = (v) => Math.floor(Math.log10(Math.max(v, 1)));
        const low = decadeBelow(Math.min(...ends));
        const high = Math.max(Math.ceil(Math.log10(Math.max(...ends, 2))), low + 1);
        const W = 320, H = 96, BASE = 78, TOP = 8;
        const place = (v) => 6 + (Math.log10(Math.max(v, 1)) - low) / (high - low) * (W - 12);
        for (const f of measured) {
            const figure = element("figure", undefined, parent);
            const caption = element("figcaption", f.name, figure);
            element("span", `median ${duration(f.median)}, p99 ${duration(f.p99)}`, caption);
            const picture = svg("svg", { viewBox: `0 0 ${W} ${H}`, role: "img", "aria-label": `Durations of ${f.name}: median ${duration(f.median)}, p99 ${duration(f.p99)}` }, figure);
            let most = 0;
            for (let i = 1; i < f.bars.length; i += 2) most = Math.max(most, f.bars[i]);
            for (let d = low; d <= high; ++d) {
                const px = place(10 ** d);
                svg("line", { class: "axis", x1: px, x2: px, y1: TOP, y2: BASE }, picture);
                svg("text", { x: px, y: BASE + 13, "text-anchor": d === low ? "start" : d === high ? "end" : "middle" }, picture).textContent = duration(10 ** d);
            }
            for (let i = 0; i < f.bars.length; i += 2) {
                const lower = f.bars[i];
                const upper = lower < 4 ? lower + 1 : lower + 2 ** (Math.floor(Math.log2(lower)) - 2);
                const tall = Math.max(f.bars[i + 1] / most * (BASE - TOP), 1.5);
                const bar = svg("rect", { x: place(lower), y: BASE - tall, width: Math.max(place(upper) - place(lower) - 0.7, 1), height: tall, fill: colour(f.n) }, picture);
                svg("title", {}, bar).textContent = `${duration(lower)} to ${duration(upper)}: ${f.bars[i + 1]} calls`;
            }
            svg("line", { class: "axis", x1: 0, x2: W, y1: BASE, y2: BASE }, picture);
            for (const v of [f.median, f.p99]) svg("line", { class: "mark", x1: place(v), x2: place(v), y1: TOP - 4, y2: BASE }, picture);
        }
    };

    const fillThreads = () => {
        const body = byId("threads").tBodies[0];
        for (const lane of lanes.slice(0, MOST_LANES)) {
            const row = body.insertRow();
            for (const text of [lane.pid, lane.thread, lane.calls.length, lane.failed, lane.open, duration(lane.busy)]) element("td", text, row);
        }
        canvas.setAttribute("aria-label", `Timeline of ${calls.length / FIELDS} calls in ${lanes.length} threads, ${failures.length} of them refused or failed. The tables show the same.`);
    };

    const PAGE = 200;
    let listed = 0;
    const listFailures = () => {
        const body = byId("failures").tBodies[0];
        for (const i of failures.slice(listed, listed + PAGE)) {
            const row = body.insertRow();
            const [pid, thread] = data.threads[calls[i]];
            for (const text of [dateAndTime(calls[i + 2]), pid, thread, data.functions[calls[i + 1]].name]) element("td", text, row);
        }
        listed = Math.min(listed + PAGE, failures.length);
        byId("failures-more").hidden = listed >= failures.length;
        byId("failures").hidden = failures.length === 0;
        byId("failures-count").textContent = failures.length === 0 ? "None." : `${listed} of ${failures.length}.`;
    };
    byId("failures-more").addEventListener("click", listFailures);

    const drawAll = () => { draw(); drawLegend(); drawHistograms(); };
    fillThreads();
    listFailures();
    drawAll();
    canvas.style.height = `${height}px`;
    dark.addEventListener("change", drawAll);
    new ResizeObserver(() => { if (box.clientWidth !== width) draw(); }).observe(box);
    document.documentElement.dataset.state = "drawn";
})();
