#pragma once

// The TOML library as it is used here; internal to system/.

#define TOML_HEADER_ONLY 1
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>
