#pragma once

// Descriptions of registers as others write them, for tests of what becomes of them.

#include <fmt/format.h>

#include <string>

namespace Descriptions {

// A device with one peripheral P at 0, whose registers are these.
inline std::string svd(const std::string& registers) {
  return "<device><name>chip</name><peripherals><peripheral><name>P</name>"
         "<baseAddress>0</baseAddress><registers>\n" +
         registers + "\n</registers></peripheral></peripherals></device>\n";
}

// A register R at 0 with these elements.
inline std::string svdRegister(const std::string& elements) {
  return svd("<register><name>R</name><addressOffset>0</addressOffset>" + elements + "</register>");
}

// A register R at 0 with a field F, which has these elements.
inline std::string svdField(const std::string& elements) {
  return svdRegister("<fields><field><name>F</name>" + elements + "</field></fields>");
}

inline std::string ipxact(const std::string& registers) {
  return "<spirit:component xmlns:spirit=\"s\"><spirit:name>chip</spirit:name><spirit:memoryMaps>"
         "<spirit:memoryMap><spirit:addressBlock><spirit:name>B</spirit:name>"
         "<spirit:baseAddress>0x10</spirit:baseAddress><spirit:width>16</spirit:width>\n" +
         registers +
         "\n</spirit:addressBlock></spirit:memoryMap></spirit:memoryMaps></spirit:component>\n";
}

// Peripherals P0, and others derived from it, each with clusters in clusters: 8 times 5 times 5
// registers of 4 fields each.
inline std::string largeSvd(int peripherals) {
  std::string fields;
  for (int i = 0; i < 4; ++i) {
    fields += fmt::format(
        "<field><name>F{}</name><bitOffset>{}</bitOffset><bitWidth>8</bitWidth></field>", i, 8 * i);
  }
  std::string text =
      "<device><name>large</name><peripherals><peripheral><name>P0</name>"
      "<baseAddress>0</baseAddress><registers><cluster><dim>8</dim>"
      "<dimIncrement>0x100</dimIncrement><name>OUTER%s</name><addressOffset>0</addressOffset>"
      "<cluster><dim>5</dim><dimIncrement>0x20</dimIncrement><name>INNER[%s]</name>"
      "<addressOffset>0x10</addressOffset><register><dim>5</dim><dimIncrement>4</dimIncrement>"
      "<name>R%s</name><addressOffset>0</addressOffset><fields>" +
      fields + "</fields></register></cluster></cluster></registers></peripheral>";
  for (int i = 1; i < peripherals; ++i) {
    text += fmt::format(
        "<peripheral derivedFrom=\"P{}\"><name>P{}</name>"
        "<baseAddress>{:#x}</baseAddress></peripheral>",
        i - 1, i, 0x1000 * i);
  }
  return text + "</peripherals></device>";
}

}  // namespace Descriptions
