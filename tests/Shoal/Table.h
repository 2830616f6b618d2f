#pragma once

// A shared table as a test has one, in its own process or in another, and the bytes of its file.

#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Orb/Enum.h"
#include "Orb/EventLoop.h"
#include "Shoal/ShoalMap.h"

namespace Tables {

using Contents = std::map<uint64_t, uint32_t>;

inline constexpr const char* path = "tables/one";
inline constexpr const char* type = "Test::Table";

inline Contents contentsOf(const Shoal::ShoalMap& map) {
  Contents all;
  for (const auto& [key, value] : map.entries()) all[key] = value;
  return all;
}

// Keeps what it is told.
struct Table {
  void write(uint32_t entries = 8, const char* at = path) { map.mountAsWriter(at, type, entries); }
  void read(const char* at = path) {
    map.mountAsReader(at, type);
    mirror = contents();
  }
  Contents contents() const { return contentsOf(map); }
  static void servePending() {
    while (Orb::eventLoop().runPending() > 0) {
    }
  }
  // Waits until it has been told everything.
  void catchUp() const {
    servePending();
    while (!quiet) {
      if (Orb::eventLoop().runFor(std::chrono::seconds(20)) == 0) {
        throw std::runtime_error("nothing happens any more");
      }
    }
  }

  std::vector<uint64_t> told;
  Contents mirror;
  std::vector<std::string> statuses;
  bool quiet = false;
  std::function<void(uint64_t)> reaction;
  Shoal::ShoalMap map{{[this](uint64_t key) { changed(key); },
                       [this] { statuses.emplace_back(Orb::enumName(map.mountStatus())); },
                       [this](bool quiesced) { quiet = quiesced; }}};

 private:
  void changed(uint64_t key) {
    told.push_back(key);
    mirror.erase(key);
    if (const auto value = map.get(key)) mirror[key] = *value;
    if (reaction) reaction(key);
  }
};

// What was found damaged while it lives.
class RecordedDamage {
 public:
  RecordedDamage() {
    Shoal::ShoalMap::corruptionHandlerIs([this](const std::string& what) { all.push_back(what); });
  }
  ~RecordedDamage() { Shoal::ShoalMap::corruptionHandlerIs({}); }

  std::vector<std::string> all;
};

inline std::string bytesOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline void bytesAre(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary) << bytes;
}
inline void inPlace(const std::string& file, const std::string& bytes) {
  std::ofstream(file, std::ios::binary | std::ios::in) << bytes;
}

}  // namespace Tables
