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
    const dateOf = (us) => new Date(Math.floor((data.start + us) / 1000)).toISOString().slice(0, 10);
    const dateAndTime = (us, digits) => `${dateOf(us)} ${timeOfDay(us, digits)}`;
    const DAY = 864e8;
    // The first midnight that is not before us.
    const midnightFrom = (us) => Math.ceil((data.start + us) / DAY) * DAY - data.start;
    const duration = (us) => us < 1000 ? `${us} µs` : us < 1e6 ? `${+(us / 1e3).toPrecision(4)} ms`
        : us < 12e7 ? `${+(us / 1e6).toPrecision(4)} s` : us < 72e8 ? `${+(us / 6e7).toPrecision(3)} min`
        : us < 36e10 ? `${+(us / 36e8).toPrecision(3)} h` : `${Math.round(us / 864e8)} days`;

    const dark = matchMedia("(prefers-color-scheme: dark)");
    // Neighbouring functions get hues far apart, none of them the red of failures; the lightness alternates for
    // readers who see few hues.
    const colour = (f) => {
        const hue = 35 + (175 + f * 114.59) % 290;
        const light = dark.matches ? [66, 54, 74][f % 3] : [44, 56, 34][f % 3];
        return `hsl(${hue.toFixed(0)} 62% ${light}%)`;
    };
    const variable = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

    // The calls of each thread in the order of time, as indexes into data.calls. Calls with a wrong clock are apart.
    const calls = data.calls;
    const apart = [];
    for (let n = 0; n < data.apart.length; n += 2) apart.push({ call: data.apart[n] * FIELDS, end: data.apart[n + 1] });
    const isApart = new Set(apart.map(({ call }) => call));
    const threads = data.threads.map(([pid, thread]) =>
        ({ pid, thread, calls: [], torn: [], count: 0, failed: 0, open: 0, busy: 0 }));
    const failures = [];
    for (let i = 0; i < calls.length; i += FIELDS) {
        const thread = threads[calls[i]];
        const took = calls[i + 3];
        thread.count++;
        if (took === FAILED) { thread.failed++; failures.push(i); }
        if (took === OPEN) thread.open++;
        if (isApart.has(i)) continue;
        thread.calls.push(i);
        thread.busy += Math.max(took, 0);
    }
    for (let n = 0; n < data.torn.length; n += 2) threads[data.torn[n]].torn.push(data.torn[n + 1]);
    const byBegin = (a, b) => calls[a + 2] - calls[b + 2];
    const endOf = (i) => calls[i + 2] + Math.max(calls[i + 3], 0);
    for (const thread of threads) thread.calls.sort(byBegin);
    failures.sort(byBegin);
    apart.sort((a, b) => byBegin(a.call, b.call));

    // A row of the timeline. An open call reaches to the next call of its lane, or to the end of the log.
    const lane = (label, list, torn) => {
        const row = { label, list, torn, longest: 0 };
        for (let k = 0; k < list.length; ++k) row.longest = Math.max(row.longest, untilOf(row, k) - calls[list[k] + 2]);
        return row;
    };
    const untilOf = ({ list }, k) => calls[list[k] + 3] !== OPEN ? endOf(list[k])
        : k + 1 < list.length ? calls[list[k + 1] + 2] : Math.max(data.end, calls[list[k] + 2]);
    // A heading for each process, then its threads.
    const rowsByThread = (shown) => shown.flatMap((thread, n) => {
        const row = lane(`T${thread.thread}`, thread.calls, thread.torn);
        return n === 0 || shown[n - 1].pid !== thread.pid ? [{ heading: `Process ${thread.pid}` }, row] : [row];
    });
    // Threads that ran one after another share a lane.
    const rowsByLane = (shown) => {
        const begin = (thread) => calls[thread.calls[0] + 2];
        const end = (thread) => thread.calls.reduce((last, i) => Math.max(last, endOf(i)), -Infinity);
        const beginning = shown.map((thread) => ({ thread, from: begin(thread), to: end(thread) }))
            .sort((a, b) => a.from - b.from);
        const ending = [...beginning].sort((a, b) => a.to - b.to);
        const lanes = [], free = [];
        let ended = 0;
        for (const item of beginning) {
            while (ended < ending.length && ending[ended].to < item.from) free.push(ending[ended++].lane);
            if (!free.length) lanes.push({ count: 0, list: [], torn: [] });
            item.lane = free.length ? free.pop() : lanes[lanes.length - 1];
            item.lane.count++;
            for (const i of item.thread.calls) item.lane.list.push(i);
            for (const at of item.thread.torn) item.lane.torn.push(at);
        }
        return lanes.map(({ count, list, torn }) => lane(`${count} thread${count === 1 ? "" : "s"}`, list, torn));
    };

    const canvas = byId("timeline"), box = byId("timeline-box"), tip = byId("tip");
    const context = canvas.getContext("2d");
    const ROW = 20, HEADER = 38, MERGE_FROM = 200;
    const shown = threads.filter((thread) => thread.calls.length);
    const merge = byId("merge");
    merge.checked = shown.length >= MERGE_FROM;
    // The canvas shows a part of the rows, because a browser limits its size. It stays in view while the box scrolls.
    let rows = [], height = 0, gutter = 0;
    const arrange = () => {
        rows = (merge.checked ? rowsByLane : rowsByThread)(shown);
        const full = HEADER + Math.max(rows.length, 1) * ROW + 4;
        height = Math.min(full, Math.round(parseFloat(getComputedStyle(box).maxHeight)));
        canvas.style.height = `${height}px`;
        byId("rows").style.height = `${full - height}px`;
        const counted = (count, name) => `${count} ${name}${count === 1 ? "" : "s"}`;
        byId("lanes").textContent = merge.checked
            ? `${counted(shown.length, "thread")} in ${counted(rows.length, "lane")}: ` +
                "threads that ran one after another share one. Point at a call to see its process and thread."
            : `${counted(shown.length, "thread")}.${full > height ? " Scroll to see all." : ""}`;
    };
    const whole = { from: 0, to: Math.max(data.end, 1) };
    const margin = Math.max((whole.to - whole.from) * 0.01, 1);
    whole.from -= margin;
    whole.to += margin;
    let view = { ...whole };
    let width = 0;
    const x = (us) => gutter + (us - view.from) / (view.to - view.from) * (width - gutter);
    const us = (px) => view.from + (px - gutter) / (width - gutter) * (view.to - view.from);

    const niceStep = (span) => {
        const steps = [1, 2, 5, 10, 20, 50, 100, 200, 500].flatMap((n) => [n, n * 1e3])
            .concat([1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 21600, 43200].map((n) => n * 1e6))
            .concat([1, 2, 7, 14, 30, 61, 91, 183, 365, 730, 1826, 3652, 36525].map((n) => n * DAY));
        return steps.sort((a, b) => a - b).find((step) => step >= span) || 365250 * DAY;
    };
    const firstFrom = ({ list }, from) => {
        let low = 0, high = list.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (calls[list[middle] + 2] < from) low = middle + 1; else high = middle;
        }
        return low;
    };

    // The upper line of the axis has dates, the lower one times of day.
    const drawAxis = () => {
        const step = niceStep((view.to - view.from) / Math.max((width - gutter) / 110, 1));
        const digits = step >= 1e6 ? 0 : step >= 1e3 ? 3 : 6;
        const line = (at, style, top, bottom = height) => {
            const px = Math.round(x(at)) + 0.5;
            context.strokeStyle = style;
            context.beginPath();
            context.moveTo(px, top);
            context.lineTo(px, bottom);
            context.stroke();
        };
        const days = [];
        // Ticks are at round times of day.
        const offset = data.start % step;
        for (let at = Math.ceil((view.from + offset) / step) * step - offset; at <= view.to; at += step) {
            line(at, variable("--line"), HEADER - 4);
            if (step >= DAY) { days.push(at); continue; }
            context.fillStyle = variable("--dim");
            context.textAlign = "center";
            // A label may reach over the names on the left. A label that would be cut off on the right is left out.
            const label = timeOfDay(Math.round(at), digits);
            const reach = context.measureText(label).width / 2;
            if (x(at) + reach <= width) context.fillText(label, x(at), HEADER - 10);
        }
        if (step < DAY) {
            for (let at = midnightFrom(view.from); at <= view.to; at += DAY) {
                days.push(at);
                // Not through the time of day.
                line(at, variable("--dim"), 4, 16);
                line(at, variable("--dim"), HEADER - 4);
            }
        }
        context.fillStyle = variable("--text");
        context.textAlign = "left";
        let left = width;
        for (const at of [...days].reverse()) {
            const label = dateOf(at), wide = context.measureText(label).width;
            const px = Math.min(x(at) + 4, width - wide);
            if (px + wide > left) continue;
            context.fillText(label, px, 14);
            left = px - 8;
        }
        // The day at the left edge.
        const label = dateOf(view.from);
        if (gutter + context.measureText(label).width <= left) context.fillText(label, gutter, 14);
    };
    const drawCall = (row, k, top, colours) => {
        const i = row.list[k];
        const left = x(calls[i + 2]);
        const right = x(untilOf(row, k));
        const took = calls[i + 3];
        if (right < gutter - 6 || left > width + 6) return;
        context.fillStyle = colours.calls[calls[i + 1]];
        if (took >= 0) {
            context.fillRect(left, top + 4, Math.max(right - left, 1.5), ROW - 8);
        } else if (took === FAILED) {
            context.fillStyle = colours.bad;
            context.beginPath();
            context.moveTo(left, top + 3);
            context.lineTo(left + 5, top + ROW - 3);
            context.lineTo(left - 5, top + ROW - 3);
            context.fill();
        } else if (took === OPEN) {
            context.globalAlpha = 0.35;
            context.fillRect(left, top + 7, Math.max(right - left, 3), ROW - 14);
            context.globalAlpha = 1;
            context.fillRect(left, top + 4, 2, ROW - 8);
        } else {
            context.beginPath();
            context.arc(left, top + ROW / 2, 2.5, 0, 7);
            context.fill();
        }
    };
    const drawTorn = (at, top, colours) => {
        const px = x(at), middle = top + ROW / 2;
        if (px < gutter - 6 || px > width + 6) return;
        context.fillStyle = colours.card;
        context.strokeStyle = colours.text;
        context.beginPath();
        context.moveTo(px, middle - 6);
        context.lineTo(px + 5, middle);
        context.lineTo(px, middle + 6);
        context.lineTo(px - 5, middle);
        context.closePath();
        context.fill();
        context.stroke();
    };
    const rowTop = (n) => HEADER + n * ROW - box.scrollTop;
    const draw = () => {
        const scale = window.devicePixelRatio || 1;
        width = Math.max(box.clientWidth, 160);
        gutter = width < 600 ? 88 : 128;
        canvas.width = Math.round(width * scale);
        canvas.height = Math.round(height * scale);
        context.setTransform(scale, 0, 0, scale, 0, 0);
        context.font = `${width < 600 ? 11 : 12}px system-ui, 'DejaVu Sans', sans-serif`;
        const colours = {
            calls: data.functions.map((_, f) => colour(f)), bad: variable("--bad"), card: variable("--card"),
            stripe: variable("--stripe"), text: variable("--text"), dim: variable("--dim"),
            process: variable("--process"),
        };
        context.fillStyle = colours.card;
        context.fillRect(0, 0, width, height);
        const first = Math.max(Math.floor(box.scrollTop / ROW), 0);
        const visible = rows.slice(first, first + Math.ceil(height / ROW) + 1).map((row, n) => ({ row, n: first + n }));
        context.save();
        context.beginPath();
        context.rect(0, HEADER, width, height);
        context.clip();
        for (const { row, n } of visible) {
            context.fillStyle = row.heading ? colours.process : n % 2 ? colours.stripe : colours.card;
            context.fillRect(0, rowTop(n), width, ROW);
        }
        context.restore();
        if (!rows.length) {
            context.fillStyle = colours.dim;
            context.fillText(apart.length ? "All calls have a wrong clock; see their list." : "No calls.", 8, HEADER + 14);
            return;
        }
        drawAxis();
        context.save();
        context.beginPath();
        context.rect(gutter, HEADER, width - gutter, height);
        context.clip();
        for (const { row, n } of visible) {
            if (row.heading) continue;
            const marks = [];
            // Calls of a lane do not overlap. One that reaches into view is not longer than the longest.
            for (let k = firstFrom(row, view.from - row.longest - 1); k < row.list.length; ++k) {
                if (calls[row.list[k] + 2] > view.to) break;
                if (calls[row.list[k] + 3] === FAILED) marks.push(k);
                else drawCall(row, k, rowTop(n), colours);
            }
            for (const k of marks) drawCall(row, k, rowTop(n), colours);
            for (const at of row.torn) drawTorn(at, rowTop(n), colours);
        }
        context.restore();
        context.save();
        context.beginPath();
        context.rect(0, HEADER, width, height);
        context.clip();
        context.textAlign = "left";
        for (const { row, n } of visible) {
            context.fillStyle = row.heading ? colours.text : colours.dim;
            const left = row.heading ? 8 : width < 600 ? 12 : 18;
            context.fillText(row.heading || row.label, left, rowTop(n) + 14, gutter - 20);
        }
        context.restore();
        const from = Math.round(view.from), to = Math.round(view.to);
        const until = dateOf(from) === dateOf(to) ? timeOfDay(to, 3) : dateAndTime(to, 3);
        byId("shown").textContent = `${dateAndTime(from, 3)} to ${until} (${duration(to - from)})`;
    };

    let pending = false;
    const redraw = () => {
        if (!pending) {
            pending = true;
            requestAnimationFrame(() => { pending = false; draw(); });
        }
    };
    const show = (from, to) => {
        const span = Math.min(Math.max(to - from, 20), whole.to - whole.from);
        const begin = Math.min(Math.max(from, whole.from), whole.to - span);
        view = { from: begin, to: begin + span };
        redraw();
    };
    const zoom = (factor, px = (width + gutter) / 2) => {
        const at = us(px);
        show(at - (at - view.from) * factor, at + (view.to - at) * factor);
    };
    const move = (share) => show(view.from + (view.to - view.from) * share, view.to + (view.to - view.from) * share);
    const all = () => show(whole.from, whole.to);
    byId("zoom-in").addEventListener("click", () => zoom(0.5));
    byId("zoom-out").addEventListener("click", () => zoom(2));
    byId("zoom-all").addEventListener("click", all);
    merge.addEventListener("change", () => { arrange(); box.scrollTop = 0; draw(); });
    box.addEventListener("scroll", () => { tip.hidden = true; redraw(); });
    const keys = { ArrowLeft: () => move(-0.2), ArrowRight: () => move(0.2), "+": () => zoom(0.5), "=": () => zoom(0.5), "-": () => zoom(2), 0: all };
    canvas.addEventListener("keydown", (event) => {
        if (!keys[event.key] || event.ctrlKey || event.metaKey || event.altKey) return;
        keys[event.key]();
        event.preventDefault();
    });
    canvas.addEventListener("wheel", (event) => {
        if (!event.ctrlKey) return;
        zoom(event.deltaY > 0 ? 1.25 : 0.8, event.offsetX);
        event.preventDefault();
    }, { passive: false });
    let drag = null;
    canvas.addEventListener("pointerdown", (event) => {
        // Behind the menu of the right button, the button's release is not reported.
        if (event.button !== 0) return;
        drag = event.offsetX;
        canvas.setPointerCapture(event.pointerId);
    });
    for (const end of ["pointerup", "pointercancel"]) canvas.addEventListener(end, () => { drag = null; });
    canvas.addEventListener("dblclick", (event) => zoom(0.25, event.offsetX));

    // The call under the pointer, or the nearest one within a few pixels.
    const callAt = (px, py) => {
        const row = rows[Math.floor((py - HEADER + box.scrollTop) / ROW)];
        if (!row || row.heading || px < gutter || py < HEADER) return undefined;
        const reach = us(px + 5) - us(px);
        let best, distance = reach;
        for (let k = firstFrom(row, us(px) - reach - row.longest - 1); k < row.list.length; ++k) {
            const i = row.list[k];
            if (calls[i + 2] > us(px) + reach) break;
            const away = us(px) < calls[i + 2] ? calls[i + 2] - us(px) : Math.max(us(px) - untilOf(row, k), 0);
            if (away <= distance) { distance = away; best = i; }
        }
        return best;
    };
    const describe = (i) => {
        const took = calls[i + 3];
        const outcome = took >= 0 ? duration(took) : took === FAILED ? "refused or failed"
            : took === OPEN ? "open at the end of the log" : "only its end is in the log";
        const [pid, thread] = data.threads[calls[i]];
        // A name may have letters that are written from right to left. They must not reorder the rest.
        const name = element("bdi", data.functions[calls[i + 1]].name);
        return [name, `: ${outcome}\n${dateAndTime(calls[i + 2])}\nP${pid} T${thread}`];
    };
    canvas.addEventListener("pointermove", (event) => {
        if (drag !== null) {
            const shift = us(drag) - us(event.offsetX);
            drag = event.offsetX;
            show(view.from + shift, view.to + shift);
        }
        explain(event);
    });
    const explain = (event) => {
        const found = drag === null ? callAt(event.offsetX, event.offsetY) : undefined;
        tip.hidden = found === undefined;
        if (found === undefined) return;
        tip.replaceChildren(...describe(found));
        tip.style.left = `${Math.max(Math.min(event.offsetX + 14, width - tip.offsetWidth - 8), 0)}px`;
        const above = event.offsetY + tip.offsetHeight + 18 > height;
        const top = above ? Math.max(event.offsetY - tip.offsetHeight - 8, 0) : event.offsetY + 16;
        tip.style.top = `${box.scrollTop + top}px`;
    };
    // A finger does not hover.
    canvas.addEventListener("click", explain);
    canvas.addEventListener("pointerleave", (event) => { if (event.pointerType === "mouse") tip.hidden = true; });

    const MOST_COLOURS = 40;
    const drawLegend = () => {
        const list = byId("legend");
        list.replaceChildren();
        const used = new Set();
        for (let i = 1; i < calls.length; i += FIELDS) used.add(calls[i]);
        const sorted = [...used].sort((a, b) => data.functions[a].name < data.functions[b].name ? -1 : 1);
        const add = (text, shape, attributes) => {
            const item = element("li", undefined, list);
            svg(shape, attributes, svg("svg", { viewBox: "0 0 12 12", "aria-hidden": true }, item));
            item.append(text);
        };
        for (const f of sorted.slice(0, MOST_COLOURS)) {
            add(data.functions[f].name, "rect", { width: 12, height: 12, rx: 2, fill: colour(f) });
        }
        if (sorted.length > MOST_COLOURS) element("li", `and ${sorted.length - MOST_COLOURS} more functions`, list);
        add("refused or failed", "path", { d: "M6 0L12 12H0Z", fill: variable("--bad") });
        const diamond = { d: "M6 1L11 6L6 11L1 6Z", fill: variable("--card"), stroke: variable("--text") };
        if (data.torn.length) add("torn record", "path", diamond);
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
            const labelled = Math.ceil((high - low) / 7);
            for (let d = low; d <= high; ++d) {
                const px = place(10 ** d);
                svg("line", { class: "axis", x1: px, x2: px, y1: TOP, y2: BASE }, picture);
                if ((d - low) % labelled === 0) svg("text", { x: px, y: BASE + 13, "text-anchor": d === low ? "start" : d === high ? "end" : "middle" }, picture).textContent = duration(10 ** d);
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

    // Fills a table in steps. Its name is also the beginning of its count's and its button's.
    const PAGE = 200;
    const list = (name, items, cells) => {
        const table = byId(name), more = byId(`${name}-more`);
        let listed = 0;
        const add = () => {
            for (const item of items.slice(listed, listed + PAGE)) {
                const row = table.tBodies[0].insertRow();
                for (const text of cells(item)) element("td", text, row);
            }
            listed = Math.min(listed + PAGE, items.length);
            more.hidden = listed >= items.length;
            table.hidden = items.length === 0;
            byId(`${name}-count`).textContent = items.length === 0 ? "None." : `${listed} of ${items.length}.`;
        };
        more.addEventListener("click", add);
        add();
    };
    const nameOf = (i) => data.functions[calls[i + 1]].name;
    list("threads", threads, ({ pid, thread, count, failed, open, busy }) =>
        [pid, thread, count, failed, open, duration(busy)]);
    list("failures", failures, (i) => [dateAndTime(calls[i + 2]), ...data.threads[calls[i]], nameOf(i)]);
    const endText = (call, end) => calls[call + 3] < 0 ? "" : dateAndTime(end);
    list("apart", apart, ({ call, end }) =>
        [dateAndTime(calls[call + 2]), endText(call, end), ...data.threads[calls[call]], nameOf(call)]);
    canvas.setAttribute("aria-label", `Timeline of ${calls.length / FIELDS - apart.length} calls in ${shown.length} ` +
        "threads. The tables show the same.");

    const drawAll = () => { draw(); drawLegend(); drawHistograms(); };
    arrange();
    drawAll();
    dark.addEventListener("change", drawAll);
    new ResizeObserver(() => { if (box.clientWidth !== width) { arrange(); draw(); } }).observe(box);
    document.documentElement.dataset.state = "drawn";
})();
