#include "KoruRegFile/TransportDescriptorEnum.h"

namespace KoruRegFile {

TransportType TransportTypeInstance(uint32_t number) {
  return Orb::enumFromNumber<TransportType>(number);
}
TransportType TransportTypeInstance(std::string_view name) {
  return Orb::enumFromName<TransportType>(name);
}
TransportProtocol TransportProtocolInstance(uint32_t number) {
  return Orb::enumFromNumber<TransportProtocol>(number);
}
TransportProtocol TransportProtocolInstance(std::string_view name) {
  return Orb::enumFromName<TransportProtocol>(name);
}
TransportFlavour TransportFlavourInstance(uint32_t number) {
  return Orb::enumFromNumber<TransportFlavour>(number);
}
TransportFlavour TransportFlavourInstance(std::string_view name) {
  return Orb::enumFromName<TransportFlavour>(name);
}

const char* stringValue(TransportType type) { return Orb::enumName(type); }
const char* stringValue(TransportProtocol protocol) { return Orb::enumName(protocol); }
const char* stringValue(TransportFlavour flavour) { return Orb::enumName(flavour); }

std::ostream& operator<<(std::ostream& out, TransportType type) { return out << stringValue(type); }
std::ostream& operator<<(std::ostream& out, TransportProtocol protocol) {
  return out << stringValue(protocol);
}
std::ostream& operator<<(std::ostream& out, TransportFlavour flavour) {
  return out << stringValue(flavour);
}

}  // namespace KoruRegFile
