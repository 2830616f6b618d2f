#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <system_error>

#include "testing/Process.h"

namespace {

using ::testing::HasSubstr;
using Testing::Outcome;
using Testing::Process;

TEST(Process, PassesInputAndEnvironmentAndTellsTheEnd) {
  // More than a pipe holds.
  const std::string much(300'000, 'x');
  EXPECT_EQ(Testing::run({{"/bin/cat"}, much, {}, {}}).out, much);
  EXPECT_THAT(Testing::run({{"/usr/bin/env"}, "", {"PATH=/nowhere", "KORU_NEW=1"}, {}}).out,
              AllOf(HasSubstr("PATH=/nowhere\n"), HasSubstr("KORU_NEW=1\n")));
  const Outcome failed = Testing::run({{"/bin/cat", "/nonexistent"}});
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_THAT(failed.err, HasSubstr("/nonexistent"));
  EXPECT_THROW(Process({{"/nonexistent"}}), std::system_error);
}

TEST(Process, EndsByASignalOrWhenItTakesTooLong) {
  Process interrupted({{"/bin/sleep", "1000"}});
  interrupted.signal(SIGINT);
  const Outcome outcome = interrupted.wait();
  EXPECT_EQ(outcome.signal, SIGINT);
  EXPECT_EQ(outcome.exitCode, -1);
  Process slow({{"/bin/sleep", "1000"}});
  EXPECT_THROW(slow.line(Process::Duration(10)), std::runtime_error);
  EXPECT_THROW(Testing::run({{"/bin/sleep", "1000"}}, Process::Duration(10)), std::runtime_error);
}

TEST(Process, YieldsLinesUntilTheEnd) {
  Process process({{"/bin/cat"}, "one\n\ntwo", {}, {}});
  EXPECT_EQ(process.line(), "one");
  EXPECT_EQ(process.line(), "");
  EXPECT_THROW(process.line(), std::runtime_error);
  EXPECT_EQ(process.wait().out, "one\n\ntwo");
}

}  // namespace
