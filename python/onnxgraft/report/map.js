// The map: moves and zooms by mouse, touch and keys; says what is under the pointer; leads to cards and back.
"use strict";
(() => {
  const map = document.getElementById("map");
  if (!map) return;
  const LOOKS = ["int8", "float", "quantize", "dequantize", "other", "removed"];
  const WORDS = ["INT8", "float", "quantize", "dequantize", "other", ""];
  const FATES = ["", "changed", "added", "removed"];
  const [OP_SIZE, NAME_SIZE, LEAST] = [5, 3, 9]; // font sizes in the picture; the least on the screen, in pixels
  const MOST_TEXTS = 400;
  const SVG = "http://www.w3.org/2000/svg";
  const view = map.querySelector(".map-view");
  const svg = view.querySelector("svg");
  const says = document.getElementById("map-says");
  const silence = says.textContent;
  const [wide, high] = svg.dataset.node.split(" ").map(Number);
  const links = [...svg.querySelectorAll("a")];
  const linkOf = new Map(links.map((link) => [Number(link.id.split("-")[1]), link]));
  const items = document.getElementById("map-data").textContent.split("\n").map((line, index) => {
    const [place, style, targets, title, name, counts] = line.split("\t");
    const [x, y] = place.split(",").map(Number);
    return { index, x, y, style, targets: targets ? targets.split(",") : [], title, name, counts };
  });
  // Cells of a grid, for finding what is at a point.
  const CELL = 128;
  const grid = new Map();
  for (const item of items) {
    for (let column = Math.floor(item.x / CELL); column <= Math.floor((item.x + wide) / CELL); column++) {
      for (let row = Math.floor(item.y / CELL); row <= Math.floor((item.y + high) / CELL); row++) {
        const key = `${column} ${row}`;
        if (!grid.has(key)) grid.set(key, []);
        grid.get(key).push(item);
      }
    }
  }
  const [left, top, width, height] = svg.getAttribute("viewBox").split(" ").map(Number);
  const whole = { x: left, y: top, width, height };
  let now = { ...whole };
  const layer = document.createElementNS(SVG, "g");
  svg.append(layer);
  const spot = document.createElementNS(SVG, "rect");
  spot.setAttribute("class", "spot");
  spot.setAttribute("width", wide);
  spot.setAttribute("height", high);

  const scale = () => Math.min(svg.clientWidth / now.width, svg.clientHeight / now.height);
  // What of the picture the window shows: more than the view box where the shapes are different.
  const seen = () => {
    const [w, h] = [svg.clientWidth / scale(), svg.clientHeight / scale()];
    return { x: now.x - (w - now.width) / 2, y: now.y - (h - now.height) / 2, width: w, height: h };
  };
  // Of a long name the end is shown, of an operator the beginning.
  const write = (item, words, size, y, isName) => {
    const most = Math.floor(wide / size / 0.64);
    const element = document.createElementNS(SVG, "text");
    element.setAttribute("x", item.x + wide / 2);
    element.setAttribute("y", y);
    element.style.fontSize = `${size}px`; // not an attribute: the style of other pictures would override it
    const look = item.style === "b" ? "b" : LOOKS[item.style[0]];
    element.setAttribute("class", `on-${look}${size === NAME_SIZE ? " second" : ""}`);
    const letters = [...words];
    const cut = isName ? "…" + letters.slice(1 - most).join("") : letters.slice(0, most - 1).join("") + "…";
    element.textContent = letters.length > most ? cut : words;
    layer.append(element);
  };
  const label = () => {
    layer.replaceChildren();
    const factor = scale();
    if (OP_SIZE * factor < LEAST) return;
    const both = NAME_SIZE * factor >= LEAST;
    const { x, y, width: w, height: h } = seen();
    let left = MOST_TEXTS;
    for (const item of items) {
      if (item.x + wide < x || item.x > x + w || item.y + high < y || item.y > y + h) continue;
      if (left-- === 0) return;
      const isBlock = item.style === "b";
      const [first, second] = isBlock ? [item.name, item.title] : [item.title, item.name];
      write(item, first, OP_SIZE, item.y + (both ? 7 : 9.5), isBlock);
      if (both) write(item, second, NAME_SIZE, item.y + 12, !isBlock);
    }
  };
  const drawNow = () => {
    svg.setAttribute("viewBox", `${now.x} ${now.y} ${now.width} ${now.height}`);
    view.classList.toggle("close", now.width < whole.width);
    label();
  };
  let waits = false;
  const draw = () => {
    if (waits) return;
    waits = true;
    requestAnimationFrame(() => {
      waits = false;
      drawNow();
    });
  };
  const keepInside = () => {
    const limit = (value, low, size, all) => Math.min(Math.max(value, low - size / 2), low + all - size / 2);
    now.x = limit(now.x, whole.x, now.width, whole.width);
    now.y = limit(now.y, whole.y, now.height, whole.height);
  };
  // By a factor around a point of the picture, which stays where it is.
  const zoom = (factor, x = now.x + now.width / 2, y = now.y + now.height / 2) => {
    const least = Math.min(wide * 3, whole.width);
    const size = Math.min(Math.max(now.width / factor, least), whole.width);
    const real = now.width / size;
    now = { x: x - (x - now.x) / real, y: y - (y - now.y) / real, width: size, height: now.height / real };
    if (size === whole.width) now = { ...whole };
    keepInside();
    draw();
  };
  const move = (dx, dy) => {
    now.x += dx;
    now.y += dy;
    keepInside();
    draw();
  };
  const pointOf = (event) => {
    const box = svg.getBoundingClientRect();
    const part = seen();
    return [part.x + (event.clientX - box.left) / scale(), part.y + (event.clientY - box.top) / scale()];
  };
  const at = ([x, y], room = 0) => {
    const near = grid.get(`${Math.floor(x / CELL)} ${Math.floor(y / CELL)}`) ?? [];
    return near.find((i) => x >= i.x - room && x <= i.x + wide + room && y >= i.y - room && y <= i.y + high + room);
  };
  const tell = (item) => {
    if (!item) {
      says.textContent = silence;
      return;
    }
    const words = [item.title, item.name];
    if (item.style === "b") words.push(item.counts);
    else words.push(WORDS[item.style[0]], FATES[item.style[1]]);
    says.textContent = words.filter(Boolean).join(" · ");
    for (const [number, target] of item.targets.entries()) {
      const link = document.createElement("a");
      link.href = `#${target}`;
      link.textContent = item.targets.length > 1 ? `card ${number + 1}` : target.startsWith("card") ? "card" : "why";
      says.append(" · ", link);
    }
  };
  const mark = (item) => {
    spot.setAttribute("x", item.x);
    spot.setAttribute("y", item.y);
    svg.append(spot);
    tell(item);
  };
  // Centred, and so close that it is distinct from its neighbours.
  const show = (item) => {
    const ratio = whole.height / whole.width;
    const room = Math.min(svg.clientWidth, svg.clientHeight / ratio); // pixels for the width of the view box
    const wanted = Math.min(whole.width, Math.max(wide * 5, (0.95 * room * OP_SIZE) / LEAST));
    if (now.width > wanted) now = { ...now, width: wanted, height: wanted * ratio };
    now.x = item.x + wide / 2 - now.width / 2;
    now.y = item.y + high / 2 - now.height / 2;
    keepInside();
    mark(item);
    draw();
  };
  const card = (id) => {
    const target = document.getElementById(id);
    if (!target) return;
    for (let fold = target.closest("details"); fold; fold = fold.parentElement.closest("details")) fold.open = true;
    document.dispatchEvent(new CustomEvent("show-card", { detail: target }));
    history.replaceState(null, "", `#${id}`);
    target.focus({ preventScroll: true });
    target.scrollIntoView({ block: "start" });
  };
  const follow = (item) => {
    mark(item);
    if (item.targets.length) card(item.targets[0]);
  };
  const toMap = (id) => {
    const item = items[Number(id.split("-")[1])];
    if (!item) return;
    show(item);
    map.scrollIntoView({ block: "start" });
    (linkOf.get(item.index) ?? svg).focus({ preventScroll: true });
  };

  const held = new Map(); // pointers that are down
  let travelled = 0;
  svg.addEventListener("pointerdown", (event) => {
    if (event.button !== 0) return;
    if (held.size === 0) travelled = 0;
    held.set(event.pointerId, [event.clientX, event.clientY]);
  });
  svg.addEventListener("pointermove", (event) => {
    const last = held.get(event.pointerId);
    if (!last) {
      const item = at(pointOf(event));
      svg.classList.toggle("over", Boolean(item && item.targets.length));
      if (item) tell(item);
      return;
    }
    const [dx, dy] = [event.clientX - last[0], event.clientY - last[1]];
    travelled += Math.abs(dx) + Math.abs(dy);
    if (travelled > 4) svg.setPointerCapture(event.pointerId); // not before: a captured pointer clicks no link
    const others = [...held].filter(([id]) => id !== event.pointerId).map(([, place]) => place);
    held.set(event.pointerId, [event.clientX, event.clientY]);
    if (others.length === 1) {
      const [x, y] = others[0];
      const before = Math.hypot(last[0] - x, last[1] - y);
      const after = Math.hypot(event.clientX - x, event.clientY - y);
      const middle = pointOf({ clientX: (x + event.clientX) / 2, clientY: (y + event.clientY) / 2 });
      if (before > 0 && after > 0) zoom(after / before, ...middle);
      move(-dx / scale() / 2, -dy / scale() / 2);
    } else if (others.length === 0) {
      view.classList.add("moving");
      move(-dx / scale(), -dy / scale());
    }
  });
  const release = (event) => {
    held.delete(event.pointerId);
    view.classList.remove("moving");
  };
  svg.addEventListener("pointerup", release);
  svg.addEventListener("pointercancel", release);
  svg.addEventListener("dragstart", (event) => event.preventDefault());
  svg.addEventListener("click", (event) => {
    event.preventDefault();
    const link = event.detail === 0 && event.target.closest("a"); // by key, not by mouse
    if (!link && travelled > 4) return; // the end of a drag
    const item = link ? items[Number(link.id.split("-")[1])] : at(pointOf(event)) ?? at(pointOf(event), 6 / scale());
    if (item) follow(item);
    else tell(null);
  });
  svg.addEventListener(
    "wheel",
    (event) => {
      if (!event.ctrlKey && !svg.contains(document.activeElement)) return; // the page scrolls
      event.preventDefault();
      zoom(Math.exp(-event.deltaY * (event.deltaMode ? 0.05 : 0.0016)), ...pointOf(event));
    },
    { passive: false },
  );

  // One stop of the Tab key: from node to node by n and p.
  for (const link of links) link.setAttribute("tabindex", "-1");
  const stops = [...linkOf.keys()].map((index) => items[index]).sort((a, b) => a.index - b.index);
  let stop = -1;
  const next = (by) => {
    if (stops.length === 0) return;
    stop = (stop + by + stops.length) % stops.length;
    show(stops[stop]);
    linkOf.get(stops[stop].index).focus({ preventScroll: true });
  };
  const keys = {
    "+": () => zoom(1.5),
    "=": () => zoom(1.5),
    "-": () => zoom(1 / 1.5),
    0: () => zoom(1e-9),
    ArrowLeft: () => move(-now.width / 8, 0),
    ArrowRight: () => move(now.width / 8, 0),
    ArrowUp: () => move(0, -now.height / 8),
    ArrowDown: () => move(0, now.height / 8),
    n: () => next(1),
    p: () => next(stop < 0 ? 0 : -1),
  };
  svg.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey || !(event.key in keys)) return;
    event.preventDefault();
    event.stopPropagation();
    keys[event.key]();
  });
  for (const button of map.querySelectorAll("button")) button.addEventListener("click", () => keys[button.value]());
  document.addEventListener("click", (event) => {
    const link = event.target.closest?.('a[href^="#node-"], a[href^="#block-"]');
    const out = event.target.closest?.('#map-says a, a[href^="#card-"]:not(#map a)');
    if (link) {
      event.preventDefault();
      toMap(link.hash.slice(1));
    } else if (out) {
      event.preventDefault();
      card(out.hash.slice(1));
    }
  });
  view.classList.add("live");
  for (const part of map.querySelectorAll(".map-buttons, .map-keys")) part.hidden = false;
  new ResizeObserver(draw).observe(svg);
  if (/^#(node|block)-\d+$/.test(location.hash)) {
    toMap(location.hash.slice(1));
    drawNow(); // the first picture shows the node already
  }
})();
