/* Whole-block comparison: fill with a pattern, act, build the expected bytes by hand, compare all.
 *
 *   fill(block, sizeof *block, 1);            a pattern without runs of equal bytes
 *   Image expected(block, sizeof *block);     a copy of the block as it is now
 *   ... act on the block ...
 *   expected.put32(1512, 2).put(1517, "00:11:22:33:44:55").zero(1600, 4);
 *   EXPECT_TRUE(expected.matches(block));
 */
#ifndef SUPPORT_IMAGE_H
#define SUPPORT_IMAGE_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace sc_test {

/* Sets byte i to a mix of i and the seed, never zero. */
void fill(void* bytes, size_t size, uint32_t seed);

class Image {
 public:
  explicit Image(size_t size) : bytes_(size) {}
  Image(const void* bytes, size_t size);

  Image& put8(size_t offset, int value);
  Image& put16(size_t offset, int value);
  Image& put32(size_t offset, uint32_t value);
  /* The text's bytes, then zeroes up to the width. */
  Image& put(size_t offset, std::string_view text, size_t width = 0);
  Image& copy(size_t offset, const void* bytes, size_t size);
  Image& zero(size_t offset, size_t size);

  uint32_t get32(size_t offset) const;
  const uint8_t* data() const { return bytes_.data(); }
  uint8_t* data() { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }

  /* On failure, names the first offset that differs, with the bytes there. */
  ::testing::AssertionResult matches(const void* actual) const;

 private:
  uint8_t* at(size_t offset, size_t size);

  std::vector<uint8_t> bytes_;
};

}  // namespace sc_test

#endif
