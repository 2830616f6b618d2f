#pragma once

// The text of the ledger: one line for each transaction, as it was on the wire, numbers in
// hexadecimal. A transaction that failed ends with "! " and the errno's name.
//
//     /dev/i2c-1 48w 01 60 a0              written to the chip 0x48
//     /dev/i2c-1 48w 00 48r 19 00          read, after a repeated start
//     /dev/i2c-1 4aw ! ENXIO               nobody acknowledges
//     /dev/spidev0.0 > 12 be ef < ff ff ff

#include <cstdint>
#include <string>

namespace Simulator {

void appendByte(std::string& line, uint8_t byte);  // " 2a"
void appendAddress(std::string& line, unsigned address, bool isRead);
// Nothing for success.
void appendFailure(std::string& line, int error, bool isShort);

}  // namespace Simulator
