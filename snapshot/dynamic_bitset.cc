#include "snapshot/dynamic_bitset.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "util/error.h"

namespace pkgdlv {
namespace {

constexpr std::array<uint8_t, 256> MakeBitCounts() {
  std::array<uint8_t, 256> counts{};
  for (int i = 0; i < 256; ++i) counts[i] = static_cast<uint8_t>((i & 1) + counts[i / 2]);
  return counts;
}
constexpr std::array<uint8_t, 256> kBitCounts = MakeBitCounts();

uint64_t BitMask(uint32_t i) { return uint64_t{1} << (i % 64); }

}  // namespace

void DynamicBitset::Create(uint32_t n, std::span<const uint8_t> initialBytes) {
  uint32_t wordCount = n == 0 ? 0 : (n - 1) / 64 + 1;
  std::vector<uint64_t> words(wordCount, 0);
  size_t bytes = std::min<size_t>(initialBytes.size(), size_t{wordCount} * sizeof(uint64_t));
  if (bytes != 0) std::memcpy(words.data(), initialBytes.data(), bytes);  // words are little-endian on Linux targets
  if (n % 64 != 0) words.back() &= (uint64_t{1} << (n % 64)) - 1;         // bits past n are not part of the set

  words_ = std::move(words);
  bitCount_ = n;
  lastWordIndex_ = wordCount == 0 ? 0 : wordCount - 1;
  sizeInBytes_ = wordCount * static_cast<uint32_t>(sizeof(uint64_t));
  created_ = true;
  RecountBits();
}

void DynamicBitset::RecountBits() {
  const auto* bytes = reinterpret_cast<const uint8_t*>(words_.data());
  uint32_t count = 0;
  for (uint32_t i = 0; i < sizeInBytes_; ++i) count += kBitCounts[bytes[i]];
  setCount_ = count;
}

bool DynamicBitset::Set(uint32_t i, bool value) {
  if (!created_) Throw(result::kFail, "Cannot set bit, DynamicBitset is not created");
  if (i >= bitCount_) Throw(result::kInvalidArg, "Cannot set bit, invalid DynamicBitset position");
  uint64_t& word = words_[i / 64];
  bool previous = (word & BitMask(i)) != 0;
  if (previous == value) return previous;
  if (value) {
    word |= BitMask(i);
    ++setCount_;
  } else {
    word &= ~BitMask(i);
    --setCount_;
  }
  return previous;
}

void DynamicBitset::SetRange(uint32_t first, uint32_t last, bool value) {
  if (!created_) Throw(result::kFail, "Cannot set bit range, DynamicBitset is not created");
  if (first > last || last >= bitCount_) Throw(result::kInvalidArg, "Cannot set bit range, invalid DynamicBitset range");
  for (uint32_t i = first;;) {
    uint32_t wordIndex = i / 64;
    uint32_t lastInWord = std::min(last, wordIndex * 64 + 63);
    uint32_t width = lastInWord - i + 1;
    uint64_t mask = width == 64 ? ~uint64_t{0} : ((uint64_t{1} << width) - 1) << (i % 64);
    uint64_t& word = words_[wordIndex];
    uint32_t before = static_cast<uint32_t>(__builtin_popcountll(word & mask));
    if (value) {
      word |= mask;
      setCount_ += width - before;
    } else {
      word &= ~mask;
      setCount_ -= before;
    }
    if (lastInWord == last) break;
    i = lastInWord + 1;
  }
}

bool DynamicBitset::Check(uint32_t i) const {
  if (!created_) Throw(result::kFail, "Cannot check bit, DynamicBitset is not initialized");
  if (i >= bitCount_) Throw(result::kInvalidArg, "Cannot check bit, invalid DynamicBitset position");
  return (words_[i / 64] & BitMask(i)) != 0;
}

uint32_t DynamicBitset::CountInRange(uint32_t first, uint32_t last) const {
  if (!created_ || first > last || last >= bitCount_) {
    Throw(result::kInvalidArg, "Cannot count bits, the parameter is invalid");
  }
  uint32_t count = 0;
  for (uint32_t i = first; i <= last; ++i) count += (words_[i / 64] & BitMask(i)) != 0;
  return count;
}

std::span<const uint64_t> DynamicBitset::Words() const {
  if (!created_) Throw(result::kFail, "Cannot get bits, DynamicBitset is not initialized");
  return words_;
}

std::vector<std::pair<uint32_t, uint32_t>> DynamicBitset::SetRanges() const {
  std::vector<std::pair<uint32_t, uint32_t>> ranges;
  for (uint32_t i = 0; i < bitCount_; ++i) {
    if ((words_[i / 64] & BitMask(i)) == 0) continue;
    uint32_t first = i;
    while (i + 1 < bitCount_ && (words_[(i + 1) / 64] & BitMask(i + 1)) != 0) ++i;
    ranges.emplace_back(first, i);
  }
  return ranges;
}

}  // namespace pkgdlv
