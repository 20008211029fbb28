// The few lines every row of a list starts with.

// A new `tag` element with its class and its text, each left out when empty.
export function el(tag, className = "", text = "") {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text) node.textContent = text;
  return node;
}

// A mark for the eye only: a screen reader reads the words beside it.
export function decoration(text) {
  const mark = el("span", "", text);
  mark.setAttribute("aria-hidden", "true");
  return mark;
}
