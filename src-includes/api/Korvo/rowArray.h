#pragma once

// Array columns: the elements of one column's value, read in place.

#include <Korvo/rowEncoding.h>

#include <algorithm>
#include <array>
#include <compare>
#include <cstring>
#include <iterator>
#include <ranges>
#include <string>
#include <type_traits>
#include <utility>

namespace Korvo {

/// An indexed view of an array column. It owns nothing, and is valid until the row it points into
/// is next written, adopted, or destroyed by its last holder.
///
/// T: std::string, IpGenAddr, IpGenPrefix, their three references, SubRowReference, or bool for
/// fixed-width arrays. Elements are given by value.
template <typename T>
class ArrayReference {
 public:
  class Iterator;

  /// Refers to nothing: no element.
  ArrayReference() = default;
  /// The array that begins at `array`. Of the row it knows only its elements, which are read as
  /// told wherever they stand; one of length 0 reads up to the farthest end of them all.
  explicit ArrayReference(const byte_t* array) : array_(array) {}
  /// The same where the end of the row is known, one past its last byte, behind which nothing is
  /// read.
  ArrayReference(const byte_t* array, const byte_t* rowEnd) : array_(array), rowEnd_(rowEnd) {}

  /// The number of elements.
  unsigned int size() const {
    return array_ == nullptr ? 0 : loadField<std::uint16_t>(array_) & arrayCountMask;
  }
  /// Whether there is no element.
  bool empty() const { return size() == 0; }

  /// Throws KoOutOfRange "Invalid index" at or beyond size().
  T operator[](unsigned int index) const;

  /// At the first element.
  Iterator begin() const { return Iterator(*this, 0); }
  /// Behind the last element.
  Iterator end() const { return Iterator(*this, size()); }

 private:
  friend BaseRow;

  const VColType& slotAt(unsigned int index) const {
    return VColType::at(array_, arrayHeaderLength + sizeof(VColType) * index);
  }
  const byte_t* dataOf(const VColType& slot) const { return array_ + slot.offset(); }
  /// The array's own knowledge of where the row ends: the farthest end of its elements.
  const byte_t* endOfElements() const {
    detail::Extent elements{0};
    for (unsigned int i = 0; i < size(); ++i) elements.add(slotAt(i));
    return array_ + elements.end;
  }
  /// The first bytes of an element, as many as its type has and not as many as its slot says. Those
  /// behind the row count as zero: an address or prefix without a family is stored as an element of
  /// length 0, which may stand at the row's very end.
  template <std::size_t count>
  std::array<byte_t, count> elementBytes(const VColType& slot) const {
    std::array<byte_t, count> bytes{};
    const byte_t* const data = dataOf(slot);
    const byte_t* end = rowEnd_;
    if (end == nullptr) end = slot.length() == 0 ? endOfElements() : data + count;
    const std::size_t own = data < end ? static_cast<std::size_t>(end - data) : 0;
    std::memcpy(bytes.data(), data, std::min(count, own));
    return bytes;
  }

  const byte_t* array_ = nullptr;
  const byte_t* rowEnd_ = nullptr;
};

/// A random access iterator over the elements' values; valid as long as the array's view.
template <typename T>
class ArrayReference<T>::Iterator {
 public:
  using value_type = T;                    ///< what an element is given as
  using difference_type = std::ptrdiff_t;  ///< of two iterators
  using reference = T;                     ///< elements are values
  using pointer = void;                    ///< there is none
  /// Elements are values, not references.
  using iterator_category = std::input_iterator_tag;
  using iterator_concept = std::random_access_iterator_tag;  ///< what it offers

  Iterator() = default;
  /// At the element `index` of the array.
  Iterator(const ArrayReference& array, unsigned int index)
      : array_(array), index_(static_cast<difference_type>(index)) {}

  /// The element's value. Throws KoOutOfRange behind the last one.
  T operator*() const { return array_[static_cast<unsigned int>(index_)]; }
  /// The value `n` elements further on.
  T operator[](difference_type n) const { return *(*this + n); }

  /// Moves by `n` elements; nothing is checked.
  Iterator& operator+=(difference_type n) {
    index_ += n;
    return *this;
  }
  Iterator& operator-=(difference_type n) { return *this += -n; }
  /// Moves to the next element.
  Iterator& operator++() { return *this += 1; }
  Iterator& operator--() { return *this += -1; }
  Iterator operator++(int) { return std::exchange(*this, *this + 1); }
  Iterator operator--(int) { return std::exchange(*this, *this - 1); }
  /// The iterator `n` elements further on.
  friend Iterator operator+(Iterator it, difference_type n) { return it += n; }
  friend Iterator operator+(difference_type n, Iterator it) { return it += n; }
  friend Iterator operator-(Iterator it, difference_type n) { return it -= n; }
  /// How many elements lie between them.
  friend difference_type operator-(const Iterator& a, const Iterator& b) {
    return a.index_ - b.index_;
  }
  /// Only iterators over the same array compare.
  friend bool operator==(const Iterator& a, const Iterator& b) { return a.index_ == b.index_; }
  friend std::strong_ordering operator<=>(const Iterator& a, const Iterator& b) {
    return a.index_ <=> b.index_;
  }

 private:
  ArrayReference array_;
  difference_type index_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Inline bodies

template <typename T>
T ArrayReference<T>::operator[](unsigned int index) const {
  static_assert(detail::isVariable<T> || std::is_same_v<T, bool>,
                "ArrayReference<T>: T is std::string, IpGenAddr, IpGenPrefix, one of their "
                "references, SubRowReference or bool");
  if (index >= size()) throw KoOutOfRange("Invalid index");
  if constexpr (std::is_same_v<T, bool>) {
    return array_[arrayHeaderLength + index] != 0;
  } else {
    const VColType& slot = slotAt(index);
    const byte_t* const data = dataOf(slot);
    const len_t length = slot.length();
    if constexpr (detail::isReference<T>) {
      return detail::referenceTo<T>(data, length);
    } else if constexpr (std::is_same_v<T, std::string>) {
      return std::string(reinterpret_cast<const char*>(data), length);
    } else if constexpr (std::is_same_v<T, SubRowReference>) {
      return T(data);
    } else if constexpr (std::is_same_v<T, IpGenAddr>) {
      // Every length but 4 reads as IPv6.
      if (length == ipv4Length) return IpGenAddr(ipv4_, data);
      return IpGenAddr(ipv6_, elementBytes<ipv6Length>(slot).data());
    } else {
      // Every length but 5 reads as IPv6.
      if (length == ipv4Length + 1) return IpGenPrefix(ipv4_, data[0], data + 1);
      const auto bytes = elementBytes<ipv6Length + 1>(slot);
      return IpGenPrefix(ipv6_, bytes[0], &bytes[1]);
    }
  }
}

}  // namespace Korvo

template <typename T>
inline constexpr bool std::ranges::enable_borrowed_range<Korvo::ArrayReference<T>> = true;
