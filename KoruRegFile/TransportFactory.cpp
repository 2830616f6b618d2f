#include "KoruRegFile/TransportFactory.h"

#include <boost/functional/hash.hpp>
#include <tuple>
#include <unordered_map>

#include "KoruRegFile/MockTransportMethodImpl.h"

namespace KoruRegFile {

namespace {

using Model = Orb::Ptr<Hardware::KoruRegFile::HardwareRegisterFile>;
using Descriptor = Orb::Ptr<BaseTransportDescriptor>;
using Impl = std::unique_ptr<BaseTransportMethodImpl>;
using Triple = std::tuple<TransportType, TransportProtocol, TransportFlavour>;

Impl buildMock(const Descriptor&, const char* csvPath, const Model& regFile) {
  return std::make_unique<MockTransportMethodImpl>(csvPath, regFile);
}

const std::unordered_map<Triple, TransportBuilder, boost::hash<Triple>> builders = {
    {{TransportType::mock, TransportProtocol::mockProtocol, TransportFlavour::mockFlavour},
     buildMock},
};

}  // namespace

TransportBuilder transportBuilder(const BaseTransportDescriptor& descriptor) {
  const auto found =
      builders.find({descriptor.type(), descriptor.protocol(), descriptor.flavour()});
  return found == builders.end() ? nullptr : found->second;
}

}  // namespace KoruRegFile
