#pragma once

// The values that the row benchmarks hold in rows, the same for every contestant.

#include <Korvo/korvo_types.h>

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

/// One row's values. Addresses stand in network order, as a number for the contestants that hold
/// numbers and as the library's own value.
struct Sample {
  std::uint32_t id;
  std::uint64_t counter;
  bool up;
  std::string name8;
  std::string name24;
  std::string name60;
  std::uint32_t addressWord;
  std::uint32_t prefixWord;
  std::uint8_t prefixLength;
  Korvo::IpGenAddr address;
  Korvo::IpGenPrefix prefix;
  std::vector<std::string> tags;
  std::uint32_t linkNumber;
  std::string linkName;
};

/// What a reader found in a row: it depends on every field, and touches the first and the last byte
/// of each text, so that rows of equal sum were read from equal values.
class Sum {
 public:
  void number(std::uint64_t value) { value_ += value; }
  void text(const char* data, std::size_t size) {
    value_ += size + static_cast<unsigned char>(data[0]) +
              256U * static_cast<unsigned char>(data[size - 1]);
  }
  std::uint64_t value() const { return value_; }

 private:
  std::uint64_t value_ = 0;
};

inline std::uint64_t sumOf(const Sample& sample) {
  Sum sum;
  sum.number(sample.id);
  sum.number(sample.counter);
  sum.number(sample.up ? 1 : 0);
  for (const auto* text : {&sample.name8, &sample.name24, &sample.name60}) {
    sum.text(text->data(), text->size());
  }
  sum.number(sample.addressWord);
  sum.number(sample.prefixWord);
  sum.number(sample.prefixLength);
  for (const std::string& tag : sample.tags) sum.text(tag.data(), tag.size());
  sum.number(sample.linkNumber);
  sum.text(sample.linkName.data(), sample.linkName.size());
  return sum.value();
}

/// A range of real IPv4 addresses.
struct AddressRange {
  std::uint32_t first;
  std::uint32_t last;
};

/// The ranges of the demonstration's data, or of the sample in the repository.
inline const std::vector<AddressRange>& addressRanges() {
  static const std::vector<AddressRange> ranges = [] {
    std::vector<AddressRange> result;
    for (const char* path : {KORVO_BENCH_DEMO_DATA "/geoip", KORVO_BENCH_SAMPLE_DATA "/geoip"}) {
      std::ifstream file(path);
      for (std::string line; std::getline(file, line);) {
        AddressRange range{};
        const char* const end = line.data() + line.size();
        const auto first = std::from_chars(line.data(), end, range.first);
        if (first.ec != std::errc() || *first.ptr != ',') continue;
        std::from_chars(first.ptr + 1, end, range.last);
        result.push_back(range);
      }
      if (!result.empty()) return result;
    }
    throw std::runtime_error("no address data in " KORVO_BENCH_SAMPLE_DATA);
  }();
  return ranges;
}

/// The values of row `index`; texts are random letters, addresses lie in real ranges.
class Samples {
 public:
  Sample next() {
    const std::vector<AddressRange>& ranges = addressRanges();
    const std::size_t index = index_++;
    const AddressRange range = ranges[index * 7919 % ranges.size()];
    unsigned int length = 32;
    while (length > 0 && (range.first & prefixMask(length - 1)) == range.first &&
           (range.first | ~prefixMask(length - 1)) <= range.last) {
      --length;
    }
    length = std::min(32U, length + static_cast<unsigned int>(index / ranges.size()));

    Sample sample;
    sample.id = static_cast<std::uint32_t>(index);
    sample.counter = (std::uint64_t{random()} << 32) | random();
    sample.up = index % 3 != 0;
    sample.name8 = text(8);
    sample.name24 = text(24);
    sample.name60 = text(60);
    const std::uint32_t size = range.last - range.first;
    sample.addressWord = htonl(range.first + (size == 0 ? 0 : random() % size));
    sample.prefixWord = htonl(range.first);
    sample.prefixLength = static_cast<std::uint8_t>(length);
    sample.address = Korvo::IpAddr(sample.addressWord);
    sample.prefix = Korvo::IpGenPrefix(Korvo::IpAddr(sample.prefixWord), length);
    for (int i = 0; i < 4; ++i) sample.tags.push_back(text(12));
    sample.linkNumber = random();
    sample.linkName = text(10);
    return sample;
  }

 private:
  static std::uint32_t prefixMask(unsigned int length) {
    return length == 0 ? 0 : ~std::uint32_t{0} << (32 - length);
  }
  std::string text(std::size_t size) {
    std::string result(size, ' ');
    for (char& c : result) c = static_cast<char>('a' + random() % 26);
    return result;
  }

  std::uint32_t random() { return static_cast<std::uint32_t>(random_()); }

  std::mt19937 random_{1};
  std::size_t index_ = 0;
};

/// A few rows that stay in the processor's cache.
inline const std::vector<Sample>& someSamples() {
  static const std::vector<Sample> samples = [] {
    Samples source;
    std::vector<Sample> result;
    for (int i = 0; i < 16; ++i) result.push_back(source.next());
    return result;
  }();
  return samples;
}

}  // namespace bench
