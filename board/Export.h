#pragma once

// Marks what libKoruBoard.so exports; everything else stays hidden.
#define BOARD_EXPORT __attribute__((visibility("default")))
