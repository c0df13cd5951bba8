#include "support/image.h"

#include <string.h>

#include <stdexcept>

namespace sc_test {

/* A repeated pattern is compressed quickly. This prime divides no multiple of a stride that fits a
 * block. */
constexpr size_t kPeriod = 4093;

void fill(void* bytes, size_t size, uint32_t seed) {
  auto* at = static_cast<uint8_t*>(bytes);
  for (size_t i = 0; i < size; ++i) {
    if (i >= kPeriod) {
      at[i] = at[i - kPeriod];
      continue;
    }
    const uint32_t mixed = (static_cast<uint32_t>(i) + seed * 7919u) * 2654435761u;
    at[i] = static_cast<uint8_t>(1 + (mixed >> 16) % 255);
  }
}

Image::Image(const void* bytes, size_t size)
    : bytes_(static_cast<const uint8_t*>(bytes), static_cast<const uint8_t*>(bytes) + size) {}

uint8_t* Image::at(size_t offset, size_t size) {
  if (offset > bytes_.size() || size > bytes_.size() - offset) {
    throw std::out_of_range("image offset " + std::to_string(offset));
  }
  return bytes_.data() + offset;
}

Image& Image::put8(size_t offset, int value) {
  *at(offset, 1) = static_cast<uint8_t>(value);
  return *this;
}

Image& Image::put16(size_t offset, int value) {
  const auto word = static_cast<uint16_t>(value);
  memcpy(at(offset, sizeof word), &word, sizeof word);
  return *this;
}

Image& Image::put32(size_t offset, uint32_t value) {
  memcpy(at(offset, sizeof value), &value, sizeof value);
  return *this;
}

Image& Image::put(size_t offset, std::string_view text, size_t width) {
  memcpy(at(offset, text.size()), text.data(), text.size());
  if (width > text.size()) zero(offset + text.size(), width - text.size());
  return *this;
}

Image& Image::copy(size_t offset, const void* bytes, size_t size) {
  memcpy(at(offset, size), bytes, size);
  return *this;
}

Image& Image::zero(size_t offset, size_t size) {
  memset(at(offset, size), 0, size);
  return *this;
}

uint32_t Image::get32(size_t offset) const {
  uint32_t value;
  memcpy(&value, const_cast<Image*>(this)->at(offset, sizeof value), sizeof value);
  return value;
}

::testing::AssertionResult Image::matches(const void* actual) const {
  const auto* other = static_cast<const uint8_t*>(actual);
  size_t first = 0, count = 0;
  for (size_t i = 0; i < bytes_.size(); ++i) {
    if (bytes_[i] == other[i]) continue;
    if (count++ == 0) first = i;
  }
  if (count == 0) return ::testing::AssertionSuccess();

  auto result = ::testing::AssertionFailure();
  result << count << " of " << bytes_.size() << " bytes differ, first at offset " << first;
  auto show = [&](const char* name, const uint8_t* bytes) {
    char hex[4];
    result << "\n  " << name;
    for (size_t i = first; i < bytes_.size() && i < first + 16; ++i) {
      snprintf(hex, sizeof hex, " %02x", bytes[i]);
      result << hex;
    }
  };
  show("expected:", bytes_.data());
  show("actual:  ", other);
  return result;
}

}  // namespace sc_test
