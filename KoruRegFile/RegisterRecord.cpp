#include "KoruRegFile/RegisterRecord.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <limits>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <vector>

#include "KoruRegFile/Utils.h"
#include "Orb/Assert.h"
#include "Orb/Printable.h"

namespace KoruRegFile {

namespace {

constexpr size_t readBlockSize = 64 * 1024;

// A decimal number of digits alone; nothing when it is anything else or exceeds 32 bits.
std::optional<uint32_t> parseDigits(std::string_view field) {
  uint32_t value = 0;
  const char* end = field.data() + field.size();
  const auto [stop, error] = std::from_chars(field.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

// Opening some devices acts on the hardware, so the kind of file is looked at first. A pipe that
// nobody writes to must not block the caller: it is opened without waiting and then reads as empty.
int openForReading(const char* path) {
  struct stat status;
  if (::stat(path, &status) < 0) return -1;
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) return -1;
  const auto open = [path] { return ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC); };
  const int fd = Utils::syscallAutoRetry(open, false, true);
  if (fd >= 0) ::fcntl(fd, F_SETFL, 0);
  return fd;
}

// Reads a descriptor block by block. A read error is thrown at the stream, which turns bad with the
// line that was being read, so that half a line is never taken for a whole one.
class DescriptorBuf : public std::streambuf {
 public:
  explicit DescriptorBuf(int fd) : fd_(fd), block_(readBlockSize) {}

  int fd() const { return fd_.fd(); }
  const std::string& errorText() const { return errorText_; }

 protected:
  int_type underflow() override {
    const auto readBlock = [this] {
      return static_cast<int>(::read(fd_.fd(), block_.data(), block_.size()));
    };
    const int count = Utils::syscallAutoRetry(readBlock, false, true);
    if (count < 0) {
      errorText_ = Utils::errnoMsg();
      throw std::runtime_error(errorText_);
    }
    setg(block_.data(), block_.data(), block_.data() + count);
    return count == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
  }

 private:
  Utils::UnixFdRes fd_;
  std::vector<char> block_;
  std::string errorText_;
};

}  // namespace

const char* refusalText(RecordFault fault) {
  switch (fault) {
    case RecordFault::lineTooLong:
      return "Line too long";
    case RecordFault::badNumber:
      return "Invalid address token";
    case RecordFault::badWidth:
      return "Invalid width token";
    case RecordFault::unsupportedWidth:
      return "Unsupported register width";
    default:
      return nullptr;
  }
}

namespace {

// Fills one Register, field by field.
class RecordParser {
 public:
  RecordParser(std::string_view line, uint8_t addrBlockSize, RecordProblemSink& sink)
      : line_(line), addrBlockSize_(addrBlockSize), sink_(sink), field_(line.substr(0, 0)) {}

  Register parse() {
    // Utils::tokenize counts in 32 bits.
    if (line_.size() >= std::numeric_limits<uint32_t>::max()) {
      problem(RecordFault::lineTooLong);
      return {};
    }
    uint32_t position = 0;
    while (Utils::tokenize(line_, position, field_, ',')) {
      if (fieldCount_ == registerFieldCount) {
        problem(RecordFault::extraFields);
        return std::move(register_);
      }
      parseField();
      ++fieldCount_;
    }
    if (fieldCount_ < registerFieldCount) {
      field_ = line_.substr(line_.size());
      problem(RecordFault::missingFields);
    }
    return std::move(register_);
  }

 private:
  void problem(RecordFault fault) {
    const auto offset = static_cast<size_t>(field_.data() - line_.data());
    sink_.problem({fault, offset + 1, field_, fieldCount_});
  }

  void parseField() {
    switch (fieldCount_) {
      case 0:
        return parseNumber();
      case 1:
        if (field_.empty()) problem(RecordFault::emptyName);
        if (field_.find('\0') != field_.npos) problem(RecordFault::nulInName);
        register_.name = Orb::String(field_);
        return;
      case 2:
        register_.type = Register::regTypeFromString(field_);
        if (register_.type == RegisterType::unknown) problem(RecordFault::unknownType);
        return;
      case 3:
        register_.writeable = field_ != "false";
        if (register_.writeable && field_ != "true") problem(RecordFault::oddWriteable);
        return;
      default:
        return parseWidth();
    }
  }

  void parseNumber() {
    const std::optional<uint32_t> number = parseDigits(field_);
    if (!number) return problem(RecordFault::badNumber);
    register_.address = *number * addrBlockSize_;
    if (register_.address != uint64_t{*number} * addrBlockSize_) {
      problem(RecordFault::addressWraps);
    }
  }

  void parseWidth() {
    const std::optional<uint32_t> width = parseDigits(field_);
    if (!width) return problem(RecordFault::badWidth);
    if (*width > maxRegisterWidth) return problem(RecordFault::unsupportedWidth);
    register_.width = *width;
  }

  const std::string_view line_;
  const uint8_t addrBlockSize_;
  RecordProblemSink& sink_;
  std::string_view field_;
  uint32_t fieldCount_ = 0;
  Register register_;
};

}  // namespace

Register parseRecord(std::string_view line, uint8_t addrBlockSize, RecordProblemSink& sink) {
  ORB_ASSERT(addrBlockSize != 0, "addrBlockSize", "the address block size of a register map is 0");
  return RecordParser(line, addrBlockSize, sink).parse();
}

void throwNoRegister(std::string_view name) {
  const bool hasNul = name.find('\0') != name.npos;
  throw std::runtime_error(fmt::format("RegisterFile does not have register '{}'!",
                                       hasNul ? Orb::printable(name) : std::string(name)));
}

struct RecordLines::File {
  explicit File(const char* path_) : path(path_), buf(openForReading(path_)), in(&buf) {}

  std::string path;
  DescriptorBuf buf;
  std::istream in;
};

RecordLines::RecordLines(const char* path) {
  if (path == nullptr) throw std::logic_error("the path of a register map is a null pointer");
  file_ = std::make_unique<File>(path);
  if (file_->buf.fd() < 0) throw RegisterFileError(fmt::format("Error opening CSV file {}", path));
  in_ = &file_->in;
}

RecordLines::RecordLines(std::istream& in) : in_(&in) {}

RecordLines::~RecordLines() = default;

bool RecordLines::next(std::string_view& line) {
  if (Utils::getline_lea(*in_, buffer_, line)) {
    ++number_;
    return true;
  }
  if (file_ && in_->bad()) {
    throw RegisterFileError(fmt::format("Error reading CSV file {} after line {}: {}", file_->path,
                                        number_, file_->buf.errorText()),
                            number_);
  }
  // A stream that was bad from the start has no header; one that turned bad later has lost
  // registers.
  if (in_->bad() && number_ > 0) {
    throw RegisterFileError(fmt::format("Error reading CSV stream after line {}", number_),
                            number_);
  }
  return false;
}

}  // namespace KoruRegFile
