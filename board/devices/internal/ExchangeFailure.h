#pragma once

// What the transports over I2C formats say of a transaction that failed.

#include <cstdint>
#include <string>

namespace Board {

// "writing register LIMIT of device 0x48 on /dev/i2c-1 failed: ...", with what the adapter cannot
// do.
std::string exchangeFailure(const char* what, const char* regName, uint8_t device,
                            const std::string& node, int error, const std::string& whyNot);

}  // namespace Board
