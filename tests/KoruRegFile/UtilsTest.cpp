#include <gtest/gtest.h>
#include <sys/file.h>

#include "KoruRegFile/Utils.h"

namespace {

using namespace KoruRegFile::Utils;

TEST(UnixFlockRes, RefusesWhatCannotBeLocked) {
  EXPECT_THROW(UnixFlockRes(-1, LOCK_EX), std::runtime_error);
}

}  // namespace
