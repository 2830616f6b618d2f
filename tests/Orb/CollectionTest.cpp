// Collections, and the index that they find their entries by, beside plain lists of the same
// entries, over many random changes.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Orb/Collection.h"
#include "Orb/FlatCollection.h"
#include "Orb/PositionIndex.h"

namespace {

using Entries = std::vector<std::pair<Orb::String, uint32_t>>;

template <class C>
Entries entriesOf(const C& collection) {
  Entries all;
  for (const auto& [key, value] : collection) all.emplace_back(key, value);
  return all;
}

TEST(Collections, HoldWhatAListWouldHold) {
  Orb::Collection<Orb::String, uint32_t> collection;
  Orb::FlatCollection<Orb::String, uint32_t> flat;
  Entries list;
  std::mt19937 random(7);
  for (uint32_t i = 0; i < 3000; ++i) {
    const Orb::String key("a key of some length " + std::to_string(random() % 100));
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const auto& entry) { return entry.first == key; });
    const bool there = found != list.end();
    ASSERT_EQ(collection.has(key), there);
    ASSERT_EQ(flat(key), there ? found->second : 0);
    if (random() % 2 == 0) {
      collection.is(key, i);
      flat.is(key, i);
      if (there) found->second = i;
      if (!there) list.emplace_back(key, i);
    } else {
      ASSERT_EQ(collection.del(key), there);
      ASSERT_EQ(flat.del(key), there);
      if (there) list.erase(found);
    }
    ASSERT_EQ(entriesOf(collection), list) << "insertion order, at step " << i;
    ASSERT_EQ(entriesOf(flat).size(), list.size());
    ASSERT_EQ(collection.size(), list.size());
  }
}

TEST(PositionIndexes, TellPositionsOfTheSameHashApart) {
  const auto hashAt = [](uint32_t) { return size_t{5}; };
  Orb::PositionIndex index;
  for (uint32_t i = 0; i < 40; ++i) index.insert(5, i, hashAt);
  index.erase(5, 3, hashAt);
  for (uint32_t i = 0; i < 40; ++i) {
    EXPECT_EQ(index.find(5, [i](uint32_t position) { return position == i; }),
              i == 3 ? Orb::PositionIndex::none : i);
  }
}

}  // namespace
