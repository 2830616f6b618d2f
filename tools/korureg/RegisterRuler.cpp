#include "korureg/RegisterRuler.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "Orb/Printable.h"

namespace korureg {

namespace {

constexpr unsigned bitsOfALine = 16;
constexpr unsigned narrow = 3;  // columns of a bit, where there are 16 of them
constexpr unsigned wide = 8;    // where there are 8

// Adjoining bits that belong together, and what stands in them.
struct Span {
  unsigned high;
  unsigned low;
  std::string text;
};
using Row = std::vector<Span>;  // from the highest bit on, without a gap

using Layer = std::vector<const RulerField*>;  // from the highest bit on, without an overlap

// Marks for names that are longer than their place, in the order in which they are met.
class Legend {
 public:
  std::string markOf(const RulerField& field) {
    auto found = std::find(fields_.begin(), fields_.end(), &field);
    if (found == fields_.end()) found = fields_.insert(fields_.end(), &field);
    return fmt::format("*{}", found - fields_.begin() + 1);
  }
  void addTo(std::vector<std::string>& lines) const {
    for (size_t i = 0; i < fields_.size(); ++i) {
      const auto& [name, high, low] = *fields_[i];
      lines.push_back(
          fmt::format("*{} = {} {}", i + 1, name,
                      high == low ? fmt::format("[{}]", high) : fmt::format("[{}:{}]", high, low)));
    }
  }

 private:
  std::vector<const RulerField*> fields_;
};

std::string centred(const std::string& text, size_t width) {
  const size_t used = std::min(width, Orb::codePoints(text));
  const size_t left = (width - used) / 2;
  return std::string(left, ' ') + text + std::string(width - used - left, ' ');
}

std::vector<Layer> layersOf(const std::vector<RulerField>& fields) {
  std::vector<Layer> layers;
  for (const RulerField& field : fields) {
    const auto free = std::find_if(layers.begin(), layers.end(), [&](const Layer& layer) {
      return layer.back()->low > field.high;
    });
    (free == layers.end() ? layers.emplace_back() : *free).push_back(&field);
  }
  return layers;
}

// The bits from `high` down to `low`, which stand side by side.
class Line {
 public:
  Line(unsigned high, unsigned low, unsigned cell) : high_(high), low_(low), cell_(cell) {}

  std::string numbers() const {
    std::string text;
    for (unsigned bit = high_ + 1; bit-- > low_;) {
      text += ' ' + centred(std::to_string(bit), cell_);
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  }
  Row row(const Layer& layer, Legend& legend) const {
    Row row;
    unsigned next = high_ + 1;  // the bits from there on have been dealt with
    const auto leaveOut = [&](unsigned end) {
      if (next > end) row.push_back({next - 1, end, ""});
    };
    for (const RulerField* field : layer) {
      if (field->low > high_ || field->high < low_) continue;
      Span span = {std::min(field->high, high_), std::max(field->low, low_), field->name};
      if (Orb::codePoints(span.text) > columns(span)) span.text = legend.markOf(*field);
      leaveOut(span.high + 1);
      next = span.low;
      row.push_back(std::move(span));
    }
    leaveOut(low_);
    return row;
  }
  // Each bit by itself.
  Row bits() const {
    Row row;
    for (unsigned bit = high_ + 1; bit-- > low_;) row.push_back({bit, bit, ""});
    return row;
  }
  Row digits(Row row, uint32_t value) const {
    for (Span& span : row) {
      span.text.clear();
      for (unsigned bit = span.high + 1; bit-- > span.low;) {
        span.text += centred((value >> bit & 1) != 0 ? "1" : "0", cell_);
        if (bit > span.low) span.text += ' ';
      }
    }
    return row;
  }
  std::string text(const Row& row) const {
    std::string text = "|";
    for (const Span& span : row) text += centred(span.text, columns(span)) + '|';
    return text;
  }
  // Between two rows, which both have corners in it.
  std::string border(const Row& above, const Row& below) const {
    std::set<unsigned> corners;
    for (const Row* row : {&above, &below}) {
      for (const Span& span : *row) corners.insert(span.low);
    }
    std::string text = "+";
    for (unsigned bit = high_ + 1; bit-- > low_;) {
      text += std::string(cell_, '-') + (corners.contains(bit) ? '+' : '-');
    }
    return text;
  }

 private:
  size_t columns(const Span& span) const {
    return size_t{span.high - span.low + 1} * (cell_ + 1) - 1;
  }

  const unsigned high_;
  const unsigned low_;
  const unsigned cell_;
};

}  // namespace

std::vector<std::string> registerRuler(unsigned width, std::vector<RulerField> fields,
                                       std::optional<uint32_t> value) {
  std::erase_if(fields, [&](const RulerField& field) {
    return field.high >= width || field.low > field.high;
  });
  std::stable_sort(fields.begin(), fields.end(),
                   [](const RulerField& a, const RulerField& b) { return a.high > b.high; });
  const std::vector<Layer> layers = layersOf(fields);
  const unsigned cell = width > wide ? narrow : wide;
  Legend legend;
  std::vector<std::string> lines;
  for (unsigned end = width; end > 0;) {
    const unsigned low = (end - 1) / bitsOfALine * bitsOfALine;
    const Line line(end - 1, low, cell);
    std::vector<Row> rows;
    for (const Layer& layer : layers) rows.push_back(line.row(layer, legend));
    if (rows.empty()) rows.push_back(line.bits());
    if (value && fields.empty()) rows.clear();
    if (value) rows.push_back(line.digits(rows.empty() ? line.bits() : rows.front(), *value));
    lines.push_back(line.numbers());
    lines.push_back(line.border(rows.front(), rows.front()));
    for (size_t i = 0; i < rows.size(); ++i) {
      lines.push_back(line.text(rows[i]));
      lines.push_back(line.border(rows[i], i + 1 < rows.size() ? rows[i + 1] : rows[i]));
    }
    end = low;
  }
  legend.addTo(lines);
  return lines;
}

}  // namespace korureg
