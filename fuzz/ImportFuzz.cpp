// Imported XML: whatever it is, the import ends soon, within its bounds.

#include "fuzz/Input.h"
#include "korureg/import/ImportedMap.h"
#include "korureg/import/Readers.h"
#include "korureg/import/Xml.h"
#include "testing/TempFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace korureg;
  const Testing::TempFile file(Fuzz::Input(data, size).rest());
  const std::string path = file.path();
  Import import;
  try {
    const XmlDocument document(path);
    switch (formatOf(document.root())) {
      case ImportFormat::svd:
        readSvd(document.root(), import);
        break;
      case ImportFormat::ipxact:
        readIpXact(document.root(), import);
        break;
      case ImportFormat::uhal:
        readUhal(document.root(), import);
        break;
    }
  } catch (const ImportError& e) {
    Fuzz::require(*e.what() != '\0', "a file is refused without a reason");
  }
  Fuzz::require(import.map.registers.size() <= Import::mostRegisters, "too many registers");
  return 0;
}
