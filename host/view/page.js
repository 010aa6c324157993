"use strict";
// The page's parts: blocks (unpacked when needed) -> filter (numbers of the lines that match) -> rows (those in sight),
// and the lanes above them. A line's number counts from 0 in the whole set.

const ROW = 18, LANE = 24, AXIS = 20;
const MOST_HEIGHT = 8e6;   // of the scrolled element, in pixels: browsers lose precision beyond
const MOST_TEXT = 400e6;   // bytes of unpacked texts that are kept
const SLICE_MS = 30;       // work between two frames

const byId = id => document.getElementById(id);
const index = JSON.parse(byId("index").textContent);
const elements = [...document.querySelectorAll("script.block")];
const starts = [0];
for (const block of index.blocks) {
    starts.push(starts[starts.length - 1] + block[0]);
}
const total = starts[starts.length - 1];
const wholeFrom = index.origin;
const wholeTo = Math.max(wholeFrom + 1, ...index.blocks.map(block => block[3]));

// ---- Times

const two = n => String(n).padStart(2, "0");
function timeText(us, digits, withYear) {
    const date = new Date(Math.floor(us / 1000));
    const day = two(date.getUTCMonth() + 1) + "-" + two(date.getUTCDate());
    const clock = [date.getUTCHours(), date.getUTCMinutes(), date.getUTCSeconds()].map(two).join(":");
    const rest = String(((us % 1e6) + 1e6) % 1e6).padStart(6, "0").slice(0, digits);
    return (withYear ? date.getUTCFullYear() + "-" : "") + day + " " + clock + (digits ? "." + rest : "");
}

// ---- Blocks

const unpacked = new Map();  // number of block -> its parts, least recently used first
const waiting = new Map();   // number of block -> promise
const utf8 = new TextDecoder();
const bytewise = new TextDecoder("windows-1252");  // one character a byte, so that positions are those of the bytes
let keptText = 0;

async function unpack(number) {
    const packed = atob(elements[number].textContent);
    const bytes = new Uint8Array(packed.length);
    for (let i = 0; i < packed.length; ++i) {
        bytes[i] = packed.charCodeAt(i);
    }
    const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream("gzip"));
    const raw = await new Response(stream).arrayBuffer();
    const count = index.blocks[number][0];
    const texts = new Uint8Array(raw, 13 * count);
    keptText += texts.length;
    return {
        times: new Float64Array(raw, 0, count), ends: new Uint32Array(raw, 8 * count, count),
        kinds: new Uint8Array(raw, 12 * count, count), texts, searched: null,
    };
}

// The block's parts, or null while it is being unpacked.
function blockNow(number) {
    const block = unpacked.get(number);
    if (block) {
        unpacked.delete(number);
        unpacked.set(number, block);
        return block;
    }
    return null;
}

function forget() {
    for (const [number, block] of unpacked) {
        if (keptText <= MOST_TEXT || unpacked.size <= 4) {
            return;
        }
        unpacked.delete(number);
        keptText -= block.texts.length;
    }
}

function blockSoon(number) {
    const block = blockNow(number);
    if (block) {
        return Promise.resolve(block);
    }
    if (!waiting.has(number)) {
        waiting.set(number, unpack(number).then(parts => {
            waiting.delete(number);
            unpacked.set(number, parts);
            forget();
            return parts;
        }));
    }
    return waiting.get(number);
}

// The number of the block that holds a line.
function blockOf(line) {
    let low = 0, high = index.blocks.length - 1;
    while (low < high) {
        const middle = (low + high + 1) >> 1;
        if (starts[middle] <= line) {
            low = middle;
        } else {
            high = middle - 1;
        }
    }
    return low;
}

const textStart = (block, at) => at > 0 ? block.ends[at - 1] : 0;
const lineText = (block, at) => utf8.decode(block.texts.subarray(textStart(block, at), block.ends[at] - 1));
function searchedText(block) {
    block.searched = block.searched || bytewise.decode(block.texts);
    return block.searched;
}
const pause = () => new Promise(done => setTimeout(done));

// ---- Filter

const shown = index.sources.map(() => true);
let matches = null;        // numbers of the lines that match, null: all
let matchCount = 0;
let pattern = null;        // for marking, null: no text is filtered
let filterRun = 0;         // a newer run ends the older one
let isFiltering = false;
const lineCount = () => matches ? matchCount : total;
const lineAt = position => matches ? matches[position] : position;

// The position of the first line from `line` on.
function positionOf(line) {
    if (!matches) {
        return Math.min(line, total);
    }
    let low = 0, high = matchCount;
    while (low < high) {
        const middle = (low + high) >> 1;
        if (matches[middle] < line) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

// The text as an expression, over characters (`isBytes`: over bytes as characters). Throws when it is none.
function expression(text, isBytes) {
    let source = byId("regex").checked ? text : text.replace(/[.*+?^${}()|[\]\\]/g, "\\$&");
    if (isBytes) {
        source = bytewise.decode(new TextEncoder().encode(source));
    }
    return new RegExp(source, "gm" + (/[A-Z]/.test(text) ? "" : "i"));
}

function keep(line) {
    if (matchCount === matches.length) {
        const larger = new Uint32Array(matches.length * 2);
        larger.set(matches);
        matches = larger;
    }
    matches[matchCount++] = line;
}

function filterBlock(block, first, search, least) {
    const isChosen = kind => shown[kind & 7] && ((kind >> 3) & 3) >= least;
    const { ends, kinds } = block;
    if (!search) {
        for (let at = 0; at < kinds.length; ++at) {
            if (isChosen(kinds[at])) {
                keep(first + at);
            }
        }
        return;
    }
    const text = searchedText(block);
    let at = 0;
    search.lastIndex = 0;
    for (let found; at < kinds.length && (found = search.exec(text)); search.lastIndex = ends[at++]) {
        while (at < kinds.length && ends[at] <= found.index) {
            ++at;
        }
        if (at === kinds.length) {
            return;
        }
        if (isChosen(kinds[at])) {
            keep(first + at);
        }
    }
}

function readFilter() {
    const text = byId("filter").value;
    byId("filter").classList.remove("bad");
    try {
        pattern = text ? expression(text, false) : null;
        return text ? expression(text, true) : null;
    } catch (error) {
        byId("filter").classList.add("bad");
        pattern = null;
        return null;
    }
}

async function filter() {
    const run = ++filterRun;
    const anchor = selected >= 0 ? selected : lineCount() ? lineAt(Math.min(Math.floor(topRow), lineCount() - 1)) : 0;
    const offset = positionOf(anchor) - topRow;
    const search = readFilter();
    const least = Number(byId("severity").value);
    if (!search && !least && shown.every(on => on)) {
        matches = null;
        isFiltering = false;
    } else {
        matches = new Uint32Array(1024);
        matchCount = 0;
        isFiltering = true;
        let since = performance.now();
        for (let number = 0; number < index.blocks.length; ++number) {
            const block = blockNow(number) || await blockSoon(number);
            if (run !== filterRun) {
                return;
            }
            filterBlock(block, starts[number], search, least);
            if (performance.now() - since > SLICE_MS) {
                follow(anchor, offset);
                await pause();
                if (run !== filterRun) {
                    return;
                }
                since = performance.now();
            }
        }
        isFiltering = false;
    }
    follow(anchor, offset);
    drawBars();
}

// Keeps `anchor`, or the line that now stands for it, where it was on the screen.
function follow(anchor, offset) {
    resize();
    scrollTo(positionOf(anchor) - Math.max(0, Math.min(offset, rowsInSight() - 2)));
}

// ---- Rows

const list = byId("list"), rows = byId("rows"), spacer = byId("spacer");
let topRow = 0;      // position of the first row in sight, with its fraction
let selected = -1;   // number of a line
let ownScroll = -1;  // the scroll position that scrollTo has set

const rowsInSight = () => Math.max(1, list.clientHeight / ROW);
const lastTop = () => Math.max(0, lineCount() - rowsInSight());
const isScaled = () => lineCount() * ROW > MOST_HEIGHT;

function resize() {
    spacer.style.height = Math.min(lineCount() * ROW, MOST_HEIGHT) + "px";
}

function scrollTo(position) {
    topRow = Math.max(0, Math.min(position, lastTop()));
    const range = spacer.offsetHeight - list.clientHeight;
    const pixels = isScaled() ? topRow / Math.max(lastTop(), 1) * range : topRow * ROW;
    list.scrollTop = pixels;
    ownScroll = list.scrollTop;
    draw();
}

list.addEventListener("scroll", () => {
    if (Math.abs(list.scrollTop - ownScroll) < 1) {
        return;
    }
    ownScroll = -1;
    const range = Math.max(1, spacer.offsetHeight - list.clientHeight);
    topRow = isScaled() ? list.scrollTop / range * lastTop() : list.scrollTop / ROW;
    draw();
});

list.addEventListener("wheel", event => {
    if (isScaled() && !event.ctrlKey && event.deltaY) {
        event.preventDefault();
        scrollTo(topRow + event.deltaY * (event.deltaMode === 1 ? 1 : 1 / ROW));
    }
}, { passive: false });

function fillText(element, text) {
    element.textContent = "";
    let at = 0;
    if (pattern) {
        pattern.lastIndex = 0;
        for (let found; (found = pattern.exec(text)) && found[0]; at = pattern.lastIndex) {
            element.append(text.slice(at, found.index));
            const mark = document.createElement("mark");
            mark.textContent = found[0];
            element.append(mark);
        }
    }
    element.append(text.slice(at));
}

function makeRow() {
    const row = document.createElement("div");
    for (const name of ["time", "source", "text"]) {
        row.append(Object.assign(document.createElement("span"), { className: name }));
    }
    row.addEventListener("click", () => select(row.line));
    rows.append(row);
    return row;
}

function drawRow(row, line) {
    const number = blockOf(line), block = blockNow(number);
    row.line = line;
    row.className = "row" + (line === selected ? " selected" : "");
    const [time, source, text] = row.children;
    if (!block) {
        time.textContent = source.textContent = "";
        text.textContent = "…";
        blockSoon(number).then(draw);
        return;
    }
    const at = line - starts[number], kind = block.kinds[at];
    time.textContent = timeText(block.times[at], kind & 32 ? 3 : 6);
    source.textContent = index.sources[kind & 7];
    source.style.color = `var(--s${kind & 7})`;
    row.className += ["", " warning", " error"][(kind >> 3) & 3];
    fillText(text, lineText(block, at));
}

function draw() {
    const first = Math.floor(topRow), count = Math.min(Math.ceil(rowsInSight()) + 1, lineCount() - first);
    rows.style.transform = `translateY(${-(topRow - first) * ROW}px)`;
    while (rows.children.length < count) {
        makeRow();
    }
    [...rows.children].forEach((row, i) => {
        row.style.display = i < count ? "" : "none";
        if (i < count) {
            drawRow(row, lineAt(first + i));
        }
    });
    byId("empty").style.display = lineCount() || isFiltering ? "none" : "block";
    byId("count").textContent = (matches ? lineCount().toLocaleString("en") + " of " : "") + total.toLocaleString("en") +
        " lines" + (isFiltering ? " …" : "");
    drawMarks();
}

async function select(line, isReplaced) {
    selected = line;
    const block = await blockSoon(blockOf(line)), at = line - starts[blockOf(line)];
    if (selected !== line) {
        return;
    }
    const detail = byId("detail"), kind = block.kinds[at];
    detail.textContent = "";
    const head = document.createElement("div"), body = document.createElement("pre");
    head.className = "head";
    head.textContent = `${timeText(block.times[at], kind & 32 ? 3 : 6, true)}   ${index.sources[kind & 7]}   line ${(line + 1).toLocaleString("en")}`;
    fillText(body, lineText(block, at));
    detail.append(head, body);
    detail.style.display = "block";
    if (!isReplaced) {
        history.replaceState(null, "", "#line=" + (line + 1));
    }
    draw();
}

function deselect() {
    selected = -1;
    byId("detail").style.display = "none";
    history.replaceState(null, "", "#");
    draw();
}

// Selects a line and brings it into sight, a third of the way down unless it is there already.
function show(line) {
    const position = positionOf(line);
    if (position < topRow || position > topRow + rowsInSight() - 2) {
        scrollTo(position - Math.floor(rowsInSight() / 3));
    }
    return select(lineAt(Math.min(position, lineCount() - 1)));
}

// The first line from the time on.
async function lineFrom(us) {
    let number = index.blocks.findIndex(block => block[3] >= us);
    if (number < 0) {
        return total - 1;
    }
    const block = await blockSoon(number);
    const at = block.times.findIndex(time => time >= us);
    return starts[number] + Math.max(at, 0);
}

// ---- Lanes

const bars = byId("bars"), marks = byId("marks"), density = byId("density");
let from = wholeFrom, to = wholeTo;  // the time that the lanes show
let dragStart = null, dragEnd = null;

const laneWidth = () => Math.max(density.clientWidth, 50);
const laneHeight = () => index.sources.length * LANE;
const timeAt = x => from + (to - from) * x / laneWidth();
const xOf = us => (us - from) / (to - from) * laneWidth();

function prepare(canvas) {
    const scale = window.devicePixelRatio || 1, width = laneWidth(), height = laneHeight() + AXIS;
    canvas.width = width * scale;
    canvas.height = height * scale;
    canvas.style.width = width + "px";
    canvas.style.height = height + "px";
    density.style.height = height + "px";
    const context = canvas.getContext("2d");
    context.scale(scale, scale);
    return context;
}

const newCounts = () => index.sources.map(() => new Uint32Array(Math.ceil(laneWidth())));

function countIndex(counts) {
    index.density.forEach((bins, source) => bins.forEach((count, i) => {
        const x = Math.floor(xOf(index.origin + (i + .5) * index.width));
        if (count && x >= 0 && x < counts[source].length) {
            counts[source][x] += count;
        }
    }));
}

function countBlock(counts, number, block) {
    const width = laneWidth(), scale = width / (to - from);
    if (index.blocks[number][3] < from || index.blocks[number][2] > to) {
        return;
    }
    for (let at = 0; at < block.times.length; ++at) {
        const x = Math.floor((block.times[at] - from) * scale);
        if (x >= 0 && x <= width) {
            ++counts[block.kinds[at] & 7][Math.min(x, counts[0].length - 1)];
        }
    }
}

function countMatches(counts) {
    let number = -1, block = null;
    for (let i = 0; i < matchCount; ++i) {
        while (number < 0 || matches[i] >= starts[number + 1]) {
            block = unpacked.get(++number);
        }
        if (!block) {
            continue;
        }
        const at = matches[i] - starts[number], x = Math.floor(xOf(block.times[at]));
        if (x >= 0 && x <= laneWidth()) {
            ++counts[block.kinds[at] & 7][Math.min(x, counts[0].length - 1)];
        }
    }
}

function drawCounts(context, counts, most, alpha) {
    const style = getComputedStyle(document.documentElement);
    counts.forEach((bins, source) => {
        context.fillStyle = style.getPropertyValue("--s" + source);
        context.globalAlpha = alpha * (shown[source] ? 1 : .25);
        const scale = (LANE - 5) / Math.log1p(most[source]);
        bins.forEach((count, x) => {
            if (count) {
                const height = Math.max(2, Math.log1p(count) * scale);
                context.fillRect(x, (source + 1) * LANE - 1 - height, 1, height);
            }
        });
    });
    context.globalAlpha = 1;
}

const STEPS = [1e3, 1e4, 1e5, 1e6, 2e6, 5e6, 1e7, 3e7, 6e7, 12e7, 3e8, 6e8, 18e8, 36e8, 72e8, 216e8, 432e8, 864e8, 1728e8,
    6048e8, 2592e9, 7776e9, 31536e9, 31536e10];

function drawAxis(context) {
    const style = getComputedStyle(document.documentElement);
    const step = STEPS.find(us => us / (to - from) * laneWidth() >= 110) || STEPS[STEPS.length - 1];
    context.strokeStyle = style.getPropertyValue("--line");
    context.fillStyle = style.getPropertyValue("--dim");
    context.font = "11px system-ui, sans-serif";
    context.beginPath();
    for (let source = 1; source <= index.sources.length; ++source) {
        context.moveTo(0, source * LANE - .5);
        context.lineTo(laneWidth(), source * LANE - .5);
    }
    for (let us = Math.ceil(from / step) * step; us <= to; us += step) {
        const x = Math.round(xOf(us)) + .5;
        context.moveTo(x, 0);
        context.lineTo(x, laneHeight() + 4);
        const [day, clock] = timeText(us, step >= 1e6 ? 0 : 3).split(" ");
        const text = step >= 864e8 ? day : us % 864e8 === 0 ? day + " " + clock : clock;
        if (x + 3 + context.measureText(text).width < laneWidth()) {
            context.fillText(text, x + 3, laneHeight() + 14);
        }
    }
    context.stroke();
}

function drawBars() {
    const context = prepare(bars), counts = newCounts();
    const isWhole = index.blocks.every((block, number) => block[3] < from || block[2] > to || unpacked.has(number));
    if (isWhole) {
        unpacked.forEach((block, number) => countBlock(counts, number, block));
    } else {
        countIndex(counts);
    }
    const most = counts.map(bins => bins.reduce((a, b) => Math.max(a, b), 1));
    drawAxis(context);
    if (matches) {
        const found = newCounts();
        countMatches(found);
        drawCounts(context, counts, most, .25);
        drawCounts(context, found, most, 1);
    } else {
        drawCounts(context, counts, most, 1);
    }
    drawMarks();
}

function fillBand(context, start, end, colour) {
    context.fillStyle = colour;
    const left = Math.max(0, Math.min(start, end)), right = Math.min(laneWidth(), Math.max(start, end));
    context.fillRect(left, 0, Math.max(right - left, 2), laneHeight());
}

function timeOf(line) {
    const number = blockOf(line), block = unpacked.get(number);
    return block ? block.times[line - starts[number]] : index.blocks[number][1];
}

// What moves: the time in sight, the selected line, the range that is being dragged.
function drawMarks() {
    const context = prepare(marks), style = getComputedStyle(document.documentElement);
    if (lineCount()) {
        const first = lineAt(Math.floor(topRow));
        const last = lineAt(Math.min(lineCount() - 1, Math.floor(topRow + rowsInSight())));
        fillBand(context, xOf(timeOf(first)), xOf(timeOf(last)), style.getPropertyValue("--window"));
    }
    if (selected >= 0) {
        context.fillStyle = style.getPropertyValue("--accent");
        context.fillRect(Math.round(xOf(timeOf(selected))), 0, 1, laneHeight());
    }
    if (dragStart !== null && dragEnd !== null) {
        fillBand(context, dragStart, dragEnd, style.getPropertyValue("--window"));
    }
}

async function zoom(start, end) {
    const least = 1000;
    from = Math.max(wholeFrom, start);
    to = Math.max(from + least, Math.min(wholeTo, end));
    drawBars();
    for (let number = 0; number < index.blocks.length; ++number) {
        if (index.blocks[number][3] >= from && index.blocks[number][2] <= to && keptText < MOST_TEXT) {
            await blockSoon(number);
        }
    }
    drawBars();
}

const mouseX = event => Math.max(0, Math.min(event.clientX - density.getBoundingClientRect().left, laneWidth()));
density.addEventListener("mousedown", event => {
    if (event.button === 0) {
        dragStart = mouseX(event);
        dragEnd = null;
        event.preventDefault();
    }
});
window.addEventListener("mousemove", event => {
    if (dragStart !== null && (dragEnd !== null || Math.abs(mouseX(event) - dragStart) > 4)) {
        dragEnd = mouseX(event);
        drawMarks();
    }
});
window.addEventListener("mouseup", async event => {
    const start = dragStart, end = dragEnd;
    dragStart = dragEnd = null;
    if (start === null) {
        return;
    }
    if (end !== null) {
        const earliest = timeAt(Math.min(start, end));
        await zoom(earliest, timeAt(Math.max(start, end)));
        scrollTo(positionOf(await lineFrom(earliest)));
    } else if (lineCount()) {
        show(await lineFrom(timeAt(start)));
    }
});
density.addEventListener("dblclick", () => zoom(wholeFrom, wholeTo));
byId("whole").addEventListener("click", () => zoom(wholeFrom, wholeTo));
density.addEventListener("wheel", event => {
    event.preventDefault();
    const centre = timeAt(mouseX(event)), factor = event.deltaY > 0 ? 1.25 : .8;
    zoom(centre - (centre - from) * factor, centre + (to - centre) * factor);
}, { passive: false });
density.addEventListener("mousemove", event => {
    const tip = byId("tip"), x = mouseX(event);
    tip.textContent = timeText(timeAt(x), to - from < 6e7 ? 3 : 0, true);
    tip.style.display = "block";
    tip.style.left = Math.max(0, Math.min(x + 10, laneWidth() - 170)) + "px";
});
density.addEventListener("mouseleave", () => byId("tip").style.display = "none");

// ---- Controls

let filterTimer = 0;
byId("filter").addEventListener("input", () => {
    clearTimeout(filterTimer);
    filterTimer = setTimeout(filter, 60);
});
byId("regex").addEventListener("change", filter);
byId("severity").addEventListener("change", filter);

function moveSelection(step) {
    if (lineCount()) {
        const position = selected < 0 ? Math.floor(topRow) : positionOf(selected) + step;
        show(lineAt(Math.max(0, Math.min(position, lineCount() - 1))));
    }
}

const KEYS = {
    ArrowDown: () => moveSelection(1), ArrowUp: () => moveSelection(-1),
    PageDown: () => scrollTo(topRow + rowsInSight() - 1), PageUp: () => scrollTo(topRow - rowsInSight() + 1),
    Home: () => scrollTo(0), End: () => scrollTo(lastTop()),
};
window.addEventListener("keydown", event => {
    const isTyping = event.target === byId("filter");
    if (event.ctrlKey || event.metaKey || event.altKey) {
        return;
    }
    if (event.key === "/" && !isTyping) {
        byId("filter").focus();
        byId("filter").select();
    } else if (event.key === "Escape" && isTyping && byId("filter").value) {
        byId("filter").value = "";
        filter();
    } else if (event.key === "Escape") {
        deselect();
        list.focus();
    } else if (event.key === "Enter" && isTyping) {
        list.focus();
    } else if (!isTyping && event.target.tagName !== "SELECT" && KEYS[event.key]) {
        KEYS[event.key]();
    } else {
        return;
    }
    event.preventDefault();
});

function makeLane(name, source) {
    const label = document.createElement("label"), box = document.createElement("input");
    const number = document.createElement("span"), word = document.createElement("span");
    box.type = "checkbox";
    box.checked = true;
    box.addEventListener("change", () => {
        shown[source] = box.checked;
        filter();
    });
    word.textContent = name;
    word.style.color = `var(--s${source})`;
    word.style.fontWeight = "600";
    const lines = index.density[source].reduce((a, b) => a + b, 0);
    number.textContent = lines.toLocaleString("en");
    number.className = "number";
    label.append(box, word, number);
    label.title = lines ? "Show or hide this source" : "The set has no line of this source";
    label.style.opacity = lines ? 1 : .5;
    byId("names").append(label);
}

// Unpacks everything in the background, so that filtering is fast from the first key on.
async function unpackAll() {
    for (let number = 0; number < index.blocks.length && keptText < MOST_TEXT; ++number) {
        await blockSoon(number);
        await pause();
    }
    drawBars();
    document.documentElement.dataset.state = "ready";
}

async function start() {
    document.title = index.name + " – log set";
    byId("name").textContent = index.name;
    for (const note of index.notes) {
        byId("notes").append(Object.assign(document.createElement("p"), { textContent: note }));
    }
    index.sources.forEach(makeLane);
    if (!("DecompressionStream" in window)) {
        byId("empty").textContent = "This browser is too old: it cannot unpack the lines.";
        byId("empty").style.display = "block";
        return;
    }
    resize();
    drawBars();
    if (total) {
        await blockSoon(0);
        const asked = Number((location.hash.match(/^#line=(\d+)$/) || [])[1]);
        if (asked >= 1 && asked <= total) {
            await show(asked - 1);
        }
    }
    draw();
    document.documentElement.dataset.state = "open";
    list.focus();
    unpackAll();
}

window.addEventListener("resize", () => {
    scrollTo(topRow);
    drawBars();
});
start();
