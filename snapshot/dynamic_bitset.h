// One bit per hash block of a whole package (the package-wide block
// numbering of the snapshot): a set bit is a block already present and good.
//
// A plain value; not synchronised (the package record's lock guards it).
// Misuse (use before Create, a position or range outside the bits) throws
// Error with a text that names the operation.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace pkgdlv {

class DynamicBitset {
 public:
  DynamicBitset() = default;

  // Makes n bits, all clear, or copied from initialBytes (little-endian
  // words, as Words() gives them; missing bytes are clear, bits past n are
  // dropped). Recounts the set bits. Create(0) makes an empty, usable set.
  void Create(uint32_t n, std::span<const uint8_t> initialBytes = {});
  bool IsCreated() const { return created_; }

  // Sets bit i to value and returns its previous value.
  bool Set(uint32_t i, bool value);
  // Sets bits first..last (inclusive); requires first <= last < size().
  void SetRange(uint32_t first, uint32_t last, bool value);
  bool Check(uint32_t i) const;

  uint32_t size() const { return bitCount_; }
  // Number of set bits (kept as bits change).
  uint32_t Count() const { return setCount_; }
  // Set bits among first..last (inclusive); requires first <= last < size().
  uint32_t CountInRange(uint32_t first, uint32_t last) const;
  // The raw 64-bit words, bit i in word i / 64 at position i % 64.
  std::span<const uint64_t> Words() const;
  uint32_t SizeInBytes() const { return sizeInBytes_; }
  // The runs of set bits as inclusive (first, last) pairs, in ascending order.
  std::vector<std::pair<uint32_t, uint32_t>> SetRanges() const;

 private:
  void RecountBits();

  bool created_ = false;
  uint32_t bitCount_ = 0;
  uint32_t setCount_ = 0;
  uint32_t lastWordIndex_ = 0;
  uint32_t sizeInBytes_ = 0;
  std::vector<uint64_t> words_;
};

}  // namespace pkgdlv
