#pragma once

// Marks what libKoruPlatform.so exports; everything else stays hidden.
#define ORB_EXPORT __attribute__((visibility("default")))
