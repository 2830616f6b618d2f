#pragma once

// A reader for each format. All throw ImportError for what makes a file useless, and tell `import`
// of everything else that they leave out.

#include <string>

#include "korureg/import/ImportedMap.h"
#include "korureg/import/Xml.h"

namespace korureg {

enum class ImportFormat { svd, ipxact, uhal };

// The format by what the outermost element is. Throws ImportError.
ImportFormat formatOf(const XmlElement& root);

void readSvd(const XmlElement& device, Import& import);
void readIpXact(const XmlElement& component, Import& import);
void readUhal(const XmlElement& top, Import& import);

}  // namespace korureg
