#pragma once

// Marks what libKoruRegFile.so exports; everything else stays hidden.
#define KORU_EXPORT __attribute__((visibility("default")))
