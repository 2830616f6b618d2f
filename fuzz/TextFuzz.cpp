// String forms: what can be read is written again to the letter, and nothing else can be read.

#include <iterator>
#include <stdexcept>

#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "KoruRegFile/ShadowFieldTypes.h"
#include "KoruRegFile/TransportDescriptor.h"
#include "Orb/Strep.h"
#include "Orb/Value.h"
#include "fuzz/Input.h"

namespace {

template <class T>
void attempt(const std::string& text) {
  try {
    Orb::StrepReader in(text);
    const T value = Orb::Strep<T>::read(in);
    in.expectEnd();
    std::string again;
    Orb::Strep<T>::write(again, value);
    Fuzz::require(again == text, "what was read is written in another way");
  } catch (const std::logic_error&) {  // all of Orb/Exception.h are some
  }
}

using Attempt = void (*)(const std::string&);
using namespace KoruRegFile;
constexpr Attempt attempts[] = {
    attempt<bool>,
    attempt<uint8_t>,
    attempt<uint32_t>,
    attempt<uint64_t>,
    attempt<Orb::String>,
    attempt<ShadowFieldKey>,
    attempt<LogicalField>,
    attempt<PhysicalField>,
    attempt<ShadowFieldValue>,
    attempt<LogicalFieldName>,
    attempt<PhysicalFieldName>,
    attempt<LogicalRegisterName>,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::Input input(data, size);
  const uint32_t which = input.below(std::size(attempts));
  attempts[which](input.rest());
  return 0;
}
