// Finds cards by their words and kind; moves from card to card by key.
"use strict";
(() => {
  const cards = [...document.querySelectorAll("article")];
  const field = document.getElementById("search");
  const boxes = [...document.querySelectorAll(".filter input")];
  const count = document.getElementById("count");
  const words = new Map();
  const wordsOf = (card) => {
    if (!words.has(card)) words.set(card, card.textContent.toLowerCase());
    return words.get(card);
  };
  const update = () => {
    const wanted = field.value.toLowerCase().split(/\s+/).filter(Boolean);
    const kinds = new Set(boxes.filter((box) => box.checked).map((box) => box.value));
    let shown = 0;
    for (const card of cards) {
      const fits =
        (boxes.length === 0 || kinds.has(card.dataset.kind)) && wanted.every((word) => wordsOf(card).includes(word));
      card.hidden = !fits;
      shown += fits;
    }
    count.value = shown === cards.length ? `${cards.length} shown` : `${shown} of ${cards.length} shown`;
  };
  const step = (by) => {
    const shown = cards.filter((card) => !card.hidden);
    if (shown.length === 0) return;
    const at = shown.indexOf(document.activeElement?.closest("article"));
    const next = shown[Math.min(Math.max(at + by, 0), shown.length - 1)];
    next.focus({ preventScroll: true });
    next.scrollIntoView({ block: "start" });
  };
  document.addEventListener("keydown", (event) => {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    if (event.key === "Escape" && event.target === field) {
      field.value = "";
      update();
      field.blur();
    } else if (event.target instanceof HTMLInputElement && event.target.type !== "checkbox") {
      return;
    } else if (event.key === "/") {
      event.preventDefault();
      field.focus();
      field.select();
    } else if (event.key === "j" || event.key === "k") {
      step(event.key === "j" ? 1 : -1);
    }
  });
  // A link leads to a card that the search hides.
  document.addEventListener("show-card", (event) => {
    if (!event.detail.hidden) return;
    field.value = "";
    for (const box of boxes) box.checked = true;
    update();
  });
  field.addEventListener("input", update);
  for (const box of boxes) box.addEventListener("change", update);
  update();
})();
