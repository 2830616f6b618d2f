#pragma once

// Builds transport implementations. The one place that knows which triple of transport type,
// protocol and flavour stands for which implementation.

#include <memory>

#include "Hardware/KoruRegFile.h"
#include "KoruRegFile/BaseTransportMethodImpl.h"
#include "KoruRegFile/Export.h"
#include "KoruRegFile/TransportDescriptor.h"

namespace KoruRegFile {

// Makes an implementation for a descriptor. The map comes from the file at `csvPath`, or from
// `regFile` when the path is empty. Null when the descriptor is not of the class that its triple
// stands for.
using TransportBuilder = std::unique_ptr<BaseTransportMethodImpl> (*)(
    const Orb::Ptr<BaseTransportDescriptor>& descriptor, const char* csvPath,
    const Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>& regFile);

// The builder for the descriptor's triple, or null when there is none.
KORU_EXPORT TransportBuilder transportBuilder(const BaseTransportDescriptor& descriptor);

}  // namespace KoruRegFile
