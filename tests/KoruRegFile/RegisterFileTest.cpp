#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include "KoruRegFile/LogicalTypes.h"
#include "KoruRegFile/PhysicalTypes.h"
#include "KoruRegFile/RegisterFile.h"
#include "KoruRegFile/Utils.h"
#include "testing/Expect.h"
#include "testing/RecordingTraceSink.h"
#include "testing/TempFile.h"

namespace {

// How the next calls of read() fail: errno values, 0 for a call that goes through.
std::vector<int> readErrors;

}  // namespace

// Stands before the C library's read, since no file of an ordinary system fails half way.
extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void* buffer, size_t size) {
  if (!readErrors.empty()) {
    const int error = readErrors.front();
    readErrors.erase(readErrors.begin());
    if (error != 0) {
      errno = error;
      return -1;
    }
  }
  return ::syscall(SYS_read, fd, buffer, size);
}

namespace {

using namespace KoruRegFile;
using ::testing::ElementsAre;
using ::Testing::failure;

using enum RegisterType;
constexpr auto none = RegisterType::unknown;

constexpr std::string_view header = "number,name,type,writeable,width\n";

std::string withHeader(std::string_view records) { return std::string(header).append(records); }

std::string mapOf(int registers) {
  std::string text(header);
  for (int i = 0; i < registers; ++i) text += fmt::format("{},r{},ctl,true,8\n", i, i);
  return text;
}

Register registerOf(uint32_t address, std::string_view name, RegisterType type, bool writeable,
                    uint32_t width) {
  Register reg;
  reg.address = address;
  reg.width = width;
  reg.type = type;
  reg.writeable = writeable;
  reg.name = name;
  return reg;
}

// The line, column and text of the refusal, or nothing.
using Refusal = std::tuple<size_t, size_t, std::string>;

template <class Action>
Refusal refusalOf(Action action) {
  try {
    action();
  } catch (const RegisterFileError& error) {
    return {error.line(), error.column(), error.what()};
  }
  return {};
}

Refusal refusalOfText(const std::string& text) {
  return refusalOf([&] {
    std::istringstream in(text);
    RegisterFile(in, 4);
  });
}

Refusal refusalOfPath(const char* path) {
  return refusalOf([&] { RegisterFile(path, 4); });
}

// --- One line ------------------------------------------------------------------------------------

const char* const extraneous = "Found extraneous field(s) in CSV file.";

std::string incomplete(int count) {
  return fmt::format("Incomplete CSV fields. Found {} fields only.", count);
}

std::string unknownType(std::string_view word) {
  return fmt::format("Unknown register type '{}'", word);
}

TEST(Register, IsKeptAndTracesWhatIsOddAboutItsLine) {
  const struct {
    std::string_view line;
    Register expected;
    std::vector<std::string> traces;
  } cases[] = {
      {"7,foo,ctl,true,32", registerOf(28, "foo", ctl, true, 32), {}},
      {"7,foo,ctl,false,0", registerOf(28, "foo", ctl, false, 0), {}},
      {"1,a b ,sts,FALSE,8", registerOf(4, "a b ", sts, true, 8), {}},
      {"1,foo,cfg,,1", registerOf(4, "foo", cfg, true, 1), {}},
      {"1,foo,const, false,1", registerOf(4, "foo", constant, true, 1), {}},
      {"7,,reserved,no,32", registerOf(28, "", reserved, true, 32), {}},
      {"0000000000000000007,foo,counter,0,0032", registerOf(28, "foo", counter, true, 32), {}},
      {"4294967295,foo,ctl,true,32", registerOf(0xfffffffc, "foo", ctl, true, 32), {}},
      {"1,foo,CTL,true,32", registerOf(4, "foo", none, true, 32), {unknownType("CTL")}},
      {"1,f,(unknown),true,32", registerOf(4, "f", none, true, 32), {unknownType("(unknown)")}},
      {"1,foo,,true,32", registerOf(4, "foo", none, true, 32), {unknownType("")}},
      {"1,foo,ctl,true,32,,", registerOf(4, "foo", ctl, true, 32), {extraneous}},
      {"1,foo,ctl,true,32,", registerOf(4, "foo", ctl, true, 32), {}},
      {"7,foo,ctl,true,", registerOf(28, "foo", ctl, true, 0), {incomplete(4)}},
      {"1,foo,x", registerOf(4, "foo", none, false, 0), {unknownType("x"), incomplete(3)}},
      {"7", registerOf(28, "", none, false, 0), {incomplete(1)}},
      {"", registerOf(0, "", none, false, 0), {incomplete(0)}}};
  for (const auto& [line, expected, traces] : cases) {
    SCOPED_TRACE(line);
    const Testing::RecordedTraces recorded("Register", 8);
    EXPECT_EQ(Register(line, 4), expected);
    EXPECT_EQ(recorded.texts("Register"), traces);
    for (const auto& message : recorded.messages()) EXPECT_EQ(message.level, 8);
  }
}

void expectRefusal(const std::string& line, size_t column, const char* message) {
  SCOPED_TRACE(line);
  EXPECT_EQ(refusalOf([&] { Register(line, 4); }), Refusal(0, column, message));
  EXPECT_EQ(refusalOfText(withHeader("1,a,ctl,true,8\n" + line + "\n2,b,ctl,true,8\n")),
            Refusal(3, column, message));
}

TEST(Register, RefusesABadLineWithItsPlace) {
  for (const std::string& number :
       std::vector<std::string>{"", "0x10", " 1", "1 ", "+1", "-1", "4294967296", {'1', '\0'}}) {
    expectRefusal(number + ",foo,ctl,true,32", 1, "Invalid address token");
  }
  for (const std::string width : {"3x", ",x", "4294967296"}) {
    expectRefusal("7,foo,ctl,true," + width, 16, "Invalid width token");
  }
  expectRefusal("7,foo,ctl,true,33", 16, "Unsupported register width");
  expectRefusal("7,,odd,,4294967295", 9, "Unsupported register width");
}

TEST(Register, RefusesALineThatTheFieldCountersCannotHold) {
  const size_t size = size_t{1} << 32;
  void* text = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(text, MAP_FAILED);
  EXPECT_EQ(refusalOf([&] {
              Register({static_cast<const char*>(text), size - 1}, 4);
            }),
            Refusal(0, 1, "Line too long"));
  ::munmap(text, size);
}

TEST(RegisterDeathTest, StopsTheProcessForABlockSizeOfZero) {
  EXPECT_DEATH(Register("7,foo,ctl,true,32", 0), "addrBlockSize");
  std::istringstream onlyHeader{std::string(header)};
  EXPECT_TRUE(RegisterFile(onlyHeader, 0).registers().empty());
}

// --- Whole maps ----------------------------------------------------------------------------------

TEST(RegisterFile, AnswersByNameAndByAddress) {
  std::istringstream in(
      withHeader("0,version,const,false,32\r\n1,control,ctl,true,32\n2,status,sts,false,16"));
  const RegisterFile map(in, 4);
  EXPECT_THAT(map.registers(), ElementsAre(registerOf(0, "version", constant, false, 32),
                                           registerOf(4, "control", ctl, true, 32),
                                           registerOf(8, "status", sts, false, 16)));
  for (const Register& reg : map.registers()) {
    EXPECT_EQ(&map.findRegisterByName(reg.name), &reg);
    EXPECT_EQ(&map.findRegisterByName(reg.name.c_str()), &reg);
    EXPECT_EQ(&map.findRegisterByName(std::string(reg.name)), &reg);
    EXPECT_TRUE(map.hasRegName(reg.name));
    EXPECT_EQ(map.findRegNameByAddr(reg.address), reg.name);
  }
}

TEST(RegisterFile, SaysWhatItDoesNotHave) {
  std::istringstream in{std::string(header)};
  const RegisterFile map(in, 4);
  EXPECT_EQ(failure([&] { map.findRegisterByName("control"); }),
            "RegisterFile does not have register 'control'!");
  EXPECT_EQ(failure([&] { map.findRegNameByAddr(64); }), "RegisterFile does not have address: 64!");
  EXPECT_EQ(failure([&] { map.regNameAtAddr(4294967295u); }),
            "RegisterFile does not have address: 4294967295!");
  EXPECT_FALSE(map.hasRegName(""));
  const char* null = nullptr;
  EXPECT_THROW(map.findRegisterByName(null), std::logic_error);
  EXPECT_THROW(map.hasRegName(null), std::logic_error);
  EXPECT_THROW(RegisterFile(null, 4), std::logic_error);
}

TEST(RegisterFile, KeepsTheFirstOfTwoNamesAndOfTwoAddresses) {
  std::istringstream in(withHeader("1,a,ctl,true,8\n2,a,cfg,false,16\n1,b,sts,true,8\n"));
  const RegisterFile map(in, 1);
  EXPECT_THAT(map.registers(),
              ElementsAre(registerOf(1, "a", ctl, true, 8), registerOf(1, "b", sts, true, 8)));
  EXPECT_EQ(map.findRegNameByAddr(1), "a");
  EXPECT_EQ(map.findRegNameByAddr(2), "a") << "the address of the dropped line leads to its name";
}

TEST(RegisterFile, ScalesByTheLargestBlockSizeAndWrapsAround) {
  std::istringstream in(withHeader("16843009,top,ctl,true,8\n16843010,wrapped,ctl,true,8\n"));
  const RegisterFile map(in, 255);
  EXPECT_EQ(map.findRegNameByAddr(0xffffffff), "top");
  EXPECT_EQ(map.findRegNameByAddr(254), "wrapped");
}

TEST(RegisterFile, RefusesAWrongHeader) {
  const Refusal wrongHeader(1, 1, "Encountered wrong CSV header!");
  for (const std::string text :
       {"", "\n", "number,name,type,writeable,width \n", "Number,name,type,writeable,width\n",
        "number,name,type,writeable,width\r\r\n", "number,name,type,writeable,width,\n",
        "\xef\xbb\xbfnumber,name,type,writeable,width\n", "0,version,const,false,32\n"}) {
    EXPECT_EQ(refusalOfText(text), wrongHeader) << text;
  }
  EXPECT_EQ(refusalOfText("number,name,type,writeable,width\r\n"), Refusal());
  EXPECT_EQ(refusalOfText("number,name,type,writeable,width"), Refusal());
}

TEST(RegisterFile, KeepsANameOfAnyBytesAndAnyLength) {
  const std::string binary("\0\xff\r\x01", 4);
  const std::string huge(3 << 20, 'x');
  const Testing::TempFile file(
      withHeader("0," + binary + ",ctl,true,8\n1," + huge + ",ctl,true,8"));
  const RegisterFile map(file.path(), 1);
  EXPECT_EQ(map.findRegisterByName(binary).address, 0u);
  EXPECT_EQ(map.regNameAtAddr(1).view(), huge);
}

TEST(RegisterFile, ReportsAStreamThatBreaksInsteadOfAShorterMap) {
  struct BreakingBuf : std::stringbuf {
    using std::stringbuf::stringbuf;
    int_type underflow() override { throw std::runtime_error("broken"); }
  } buf(withHeader("1,a,ctl,true,8\n2,b,ct"), std::ios::in);
  std::istream in(&buf);
  EXPECT_EQ(refusalOf([&] { RegisterFile(in, 4); }),
            Refusal(2, 0, "Error reading CSV stream after line 2"));
}

// --- Files ---------------------------------------------------------------------------------------

TEST(RegisterFile, OpensNothingButFilesAndPipes) {
  for (const std::string& path :
       {std::string("/nonexistent/map.csv"), std::string(), std::string("/dev/null"),
        std::string("/"), std::string(5000, 'x')}) {
    EXPECT_EQ(refusalOfPath(path.c_str()), Refusal(0, 0, "Error opening CSV file " + path));
  }
}

TEST(RegisterFile, TakesAPipeThatNobodyWritesToForAnEmptyFile) {
  const Testing::TempFile pipe;
  ::unlink(pipe.path());
  ASSERT_EQ(::mkfifo(pipe.path(), 0600), 0);
  EXPECT_EQ(refusalOfPath(pipe.path()), Refusal(1, 1, "Encountered wrong CSV header!"));
}

TEST(RegisterFile, WaitsForTheWriterOfAPipe) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const Utils::UnixFdRes readEnd(ends[0]);
  constexpr int count = 20000;  // several times what a pipe holds
  std::thread writer([&ends] {
    const Utils::UnixFdRes writeEnd(ends[1]);
    const std::string text = mapOf(count);
    EXPECT_EQ(::write(writeEnd.fd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  });
  const RegisterFile map(fmt::format("/proc/self/fd/{}", readEnd.fd()).c_str(), 4);
  writer.join();
  EXPECT_EQ(map.registers().size(), size_t{count});
  EXPECT_EQ(map.findRegNameByAddr(4 * (count - 1)), fmt::format("r{}", count - 1));
}

// On several threads at once, with a count that is not atomic by itself.
void onThreads(const std::function<void()>& step) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&step] {
      for (int n = 0; n < 1000000; ++n) step();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Threads, MayCopyWhatAMapAnswersAndMakeDefaultValues) {
  std::istringstream text(mapOf(1));
  const RegisterFile map(text, 4);
  const Register& found = map.findRegisterByName("r0");
  const uint32_t references = found.name.referenceCount();
  onThreads([&found] { const Register copied = found; });
  EXPECT_EQ(found.name.referenceCount(), references);
  EXPECT_EQ(map.findRegNameByAddr(0), "r0");
  onThreads([] { const LogicalFieldName logical; });
  onThreads([name = PhysicalFieldName()] { const Orb::String copied = name.regName().fullName(); });
  EXPECT_EQ(LogicalFieldName().fullName(), "--");
  EXPECT_EQ(PhysicalFieldName().regName().fullName(), "-");
}

TEST(RegisterFile, RetriesAnInterruptedReadAndReportsAFailedOne) {
  const std::string text = mapOf(10000);
  const Testing::TempFile file(text);
  readErrors = {EINTR, 0, EINTR, EINTR};
  EXPECT_EQ(RegisterFile(file.path(), 4).registers().size(), 10000u);
  EXPECT_TRUE(readErrors.empty());
  for (const std::vector<int>& errors : {std::vector{EIO}, std::vector{0, EIO}}) {
    readErrors = errors;
    const auto wholeLines =
        errors.size() == 1 ? 0 : std::count(text.begin(), text.begin() + 64 * 1024, '\n');
    EXPECT_EQ(refusalOfPath(file.path()),
              Refusal(wholeLines, 0,
                      fmt::format("Error reading CSV file {} after line {}: Input/output error (5)",
                                  file.path(), wholeLines)));
  }
}

}  // namespace
