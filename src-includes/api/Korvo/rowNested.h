#pragma once

// Rows nested in a column of another row, read in place.

#include <Korvo/row.h>

namespace Korvo {

/// A row nested in a column of another row, read in place. It does not keep that row alive, and is
/// valid until that row is next written, adopted, or destroyed by its last holder. It is never
/// written where it lies: writing into it stops the process.
class KORVO_API SubRowReference : public BaseRow {
 public:
  /// Refers to nothing: a null row.
  SubRowReference() = default;
  /// The row that begins at `row`.
  explicit SubRowReference(const byte_t* row) : row_(const_cast<byte_t*>(row)) {}

  byte_t* rowBuf() const override;
  /// Stops the process: a nested row is never written in place.
  byte_t* rwRowBuf() override;
  /// Stops the process.
  void nullifyRow() override;
  /// Whether this refers to nothing.
  bool isNull() const override;

 private:
  byte_t* row_ = nullptr;
};

inline byte_t* SubRowReference::rwRowBuf() {
  detail::assertionFailed("false", detail::rowHeader, __LINE__,
                          "virtual Korvo::byte_t* Korvo::SubRowReference::rwRowBuf()");
}

inline void SubRowReference::nullifyRow() {
  detail::assertionFailed("false", detail::rowHeader, __LINE__,
                          "virtual void Korvo::SubRowReference::nullifyRow()");
}

inline byte_t* SubRowReference::rowBuf() const {
  if (row_ == nullptr) throwNullRow();
  return row_;
}

inline bool SubRowReference::isNull() const {
  return row_ == nullptr;
}

inline detail::EncodedValue detail::encoded(const SubRowReference& row) {
  return encodedRow(row.rowBuf());
}

}  // namespace Korvo
