#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "korureg/import/Exports.h"

namespace korureg {

namespace {

using Out = std::back_insert_iterator<std::string>;

constexpr const char* head = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<title>{0}</title>
<style>
:root {{ color-scheme: light dark; --line: #bbb; --field: #e4eefc; --faint: #666; }}
@media (prefers-color-scheme: dark) {{ :root {{ --line: #555; --field: #23364f; --faint: #aaa; }} }}
body {{ font: 1em/1.4 sans-serif; max-width: 60em; margin: auto; padding: 1em; }}
table {{ border-collapse: collapse; width: 100%; margin: .5em 0; }}
td, th {{ border: 1px solid var(--line); padding: .2em .4em; text-align: left; vertical-align: top; }}
.ruler {{ table-layout: fixed; font-size: .75em; }}
.ruler td, .ruler th {{ text-align: center; overflow: hidden; text-overflow: ellipsis; padding: .2em 0; }}
.ruler td {{ height: 2em; vertical-align: middle; }}
.ruler th {{ border: 0; color: var(--faint); font-weight: normal; }}
.ruler .field {{ background: var(--field); }}
.about {{ color: var(--faint); }}
input {{ font: inherit; width: 100%; box-sizing: border-box; }}
</style>
</head>
<body>
<h1>{0}</h1>
<p><input id="search" type="search" placeholder="Search" aria-label="Search"></p>
)";

constexpr const char* foot = R"(<script>
const sections = [...document.querySelectorAll("section")].map(s => [s, s.textContent.toLowerCase()]);
document.getElementById("search").addEventListener("input", event => {
  const words = event.target.value.toLowerCase().split(/\s+/);
  for (const [section, text] of sections) section.hidden = !words.every(word => text.includes(word));
});
</script>
</body>
</html>
)";

constexpr unsigned bitsInRow = 16;

// The field that has the bit; of several the first one.
const ImportedField* fieldAt(const ImportedRegister& reg, unsigned bit) {
  for (const ImportedField& field : reg.fields) {
    if (bit >= field.bits.start && bit - field.bits.start < field.bits.size) return &field;
  }
  return nullptr;
}

// The bits from `high` to `low`, with a cell for each field, below each other in so many columns.
void addRulerRow(std::string& text, const ImportedRegister& reg, unsigned high, unsigned low,
                 unsigned columns) {
  const unsigned missing = columns - (high - low + 1);
  const std::string room =
      missing == 0 ? "<tr>" : fmt::format("<tr><th colspan=\"{}\"></th>", missing);
  text += room;
  for (unsigned bit = high + 1; bit-- > low;) fmt::format_to(Out(text), "<th>{}</th>", bit);
  text += "</tr>\n" + room;
  for (unsigned bit = high + 1; bit > low;) {
    const ImportedField* const field = fieldAt(reg, bit - 1);
    unsigned count = 0;
    while (bit > low && fieldAt(reg, bit - 1) == field) --bit, ++count;
    const std::string name = field ? escapedMarkup(field->name) : "";
    fmt::format_to(Out(text), "<td colspan=\"{}\"{} title=\"{}\">{}</td>", count,
                   field ? " class=\"field\"" : "", name, name);
  }
  text += "</tr>\n";
}

void addRuler(std::string& text, const ImportedRegister& reg) {
  if (reg.width == 0) return;
  text += "<table class=\"ruler\">\n";
  const unsigned columns = std::min(static_cast<unsigned>(reg.width), bitsInRow);
  for (auto end = static_cast<unsigned>(reg.width); end > 0;) {
    const unsigned low = (end - 1) / bitsInRow * bitsInRow;
    addRulerRow(text, reg, end - 1, low, columns);
    end = low;
  }
  text += "</table>\n";
}

std::string meaningText(const Board::Meaning& meaning) {
  std::string text = escapedMarkup(meaning.description);
  for (const auto& [name, value] : meaning.values) {
    fmt::format_to(Out(text), "{}{} = {}", text.empty() ? "" : "<br>", value, escapedMarkup(name));
  }
  if (meaning.isScaled()) {
    fmt::format_to(Out(text), "{}{}", text.empty() ? "" : "<br>",
                   escapedMarkup(scaleText(meaning)));
  }
  return text;
}

void addFields(std::string& text, const ImportedRegister& reg) {
  if (reg.fields.empty()) return;
  text += "<table>\n<tr><th>Bits<th>Field<th>Access<th>Kind<th>Meaning</tr>\n";
  for (const ImportedField& field : reg.fields) {
    fmt::format_to(Out(text), "<tr><td>{}<td>{}<td>{}<td>{}<td>{}</tr>\n", rangeText(field.bits),
                   escapedMarkup(field.name), accessText(field.access),
                   field.access.writes ? Board::kindName(field.kind) : "",
                   meaningText(field.meaning));
  }
  text += "</table>\n";
}

}  // namespace

std::string htmlText(const ImportedMap& map) {
  std::string text = fmt::format(head, escapedMarkup(map.name));
  for (const ImportedRegister& reg : map.registers) {
    fmt::format_to(Out(text),
                   "<section>\n<h2>{}</h2>\n<p class=\"about\">{:#06x}, {} bits, {}, {}{}</p>\n",
                   escapedMarkup(reg.name), reg.address, reg.width, escapedMarkup(reg.type),
                   accessText(reg.access), reg.readChanges ? ", reading it changes the chip" : "");
    addRuler(text, reg);
    addFields(text, reg);
    text += "</section>\n";
  }
  return text + foot;
}

}  // namespace korureg
