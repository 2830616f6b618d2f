// Elements and texts. Whatever comes from the board is put in as text, never as markup.

const byId = id => document.getElementById(id);

// Characters that would be invisible, or turn what follows, are shown by their numbers.
const strange = /[\u0000-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g;
const plain = text => text.replace(strange, c => `\\u${c.charCodeAt(0).toString(16).padStart(4, "0")}`);

// make("p", { class: "faint", onclick: f }, "text", child, ...); what is null is left out.
function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === "function") element.addEventListener(name.slice(2), value);
    else if (value !== null && value !== false) element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.filter(child => child !== null).map(child => child instanceof Node ? child : plain(String(child))));
  return element;
}

// Only what is different is touched.
function setText(element, text) {
  const shown = plain(text);
  if (element.textContent !== shown) element.textContent = shown;
}
function setClass(element, name, isOn) {
  if (element.classList.contains(name) !== isOn) element.classList.toggle(name, isOn);
}

const isThere = value => value !== undefined && value !== null;
const hex = (value, width) => "0x" + value.toString(16).padStart(Math.ceil(width / 4), "0");
const shownHex = (value, width) => isThere(value) ? hex(value, width) : "–";
const bitsText = ([high, low]) => high === low ? `[${high}]` : `[${high}:${low}]`;
const widthOf = ([high, low]) => high - low + 1;
const extract = (value, [high, low]) => Math.floor(value / 2 ** low) % 2 ** (high - low + 1);
const bitOf = (value, bit) => Math.floor(value / 2 ** bit) % 2;
const nameOf = field => `${field.register}.${field.field}`;

const isScaled = field => isThere(field.scale) || isThere(field.offset) || isThere(field.unit) || field.signed === true;

// The number that a raw value stands for.
function numberOf(field, raw) {
  const width = widthOf(field.hw_bits);
  const plain = field.signed && raw >= 2 ** (width - 1) ? raw - 2 ** width : raw;
  return Number((plain * (field.scale ?? 1) + (field.offset ?? 0)).toPrecision(10));
}

// "x2", "24.5 °C", "0x1f"
function meant(field, raw) {
  if (!isThere(raw)) return "–";
  const named = Object.entries(field.values ?? {}).find(([, value]) => value === raw);
  if (named) return named[0];
  if (isScaled(field)) return `${numberOf(field, raw)}${field.unit ? " " + field.unit : ""}`;
  return hex(raw, widthOf(field.hw_bits));
}

let messageTimer = 0;
function say(text) {
  setText(byId("message"), text);
  clearTimeout(messageTimer);
  messageTimer = setTimeout(() => byId("message").textContent = "", 8000);
}
