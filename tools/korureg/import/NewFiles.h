#pragma once

// Files that appear whole, or not at all: each is written under another name beside its place.

#include <string>
#include <vector>

namespace korureg {

class NewFiles {
 public:
  enum class Existing { stays, isReplaced };

  explicit NewFiles(Existing existing) : existing_(existing) {}
  // Removes what was not put in its place.
  ~NewFiles();
  NewFiles(const NewFiles&) = delete;
  NewFiles& operator=(const NewFiles&) = delete;

  // Returns where the text is until place(). Throws Failure; for a file that is there and stays,
  // too.
  std::string write(const std::string& path, const std::string& text);
  // Puts all in their places, in order. Throws Failure.
  void place();

 private:
  struct File {
    std::string path;
    std::string written;
  };

  const Existing existing_;
  std::vector<File> files_;
};

}  // namespace korureg
