#include <Korvo/baseRow.h>

#include <Korvo/KoStrUtils.h>

#include <cstdint>
#include <new>
#include <ostream>
#include <utility>

namespace Korvo {
namespace {

constexpr const char* thisFile = "src/baseRow.cpp";

/// A buffer with a copy of `length` bytes.
KoPtr<KoRowBuf> bufferOf(const void* bytes, std::size_t length) {
  KoPtr<KoRowBuf> buffer = std::make_shared<KoRowBuf>();
  buffer->buf_ = static_cast<byte_t*>(std::malloc(length));
  if (buffer->buf_ == nullptr) throw std::bad_alloc();
  std::memcpy(buffer->buf_, bytes, length);
  return buffer;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Ownership

void BaseRow::throwNullRow() {
  throw KoNullRow();
}

void BaseRow::shareContents(const BaseRow& other) {
  rowBuf_ = other.rowBuf_;
}

void BaseRow::nullifyRow() {
  rowBuf_.reset();
}

bool BaseRow::isFullyDefined() const {
  return false;
}

std::string BaseRow::toJson() const {
  return {};
}

void BaseRow::replaceRow(byte_t* buf) {
  if (!rowBuf_) throwNullRow();
  rowBuf_->buf_ = buf;
}

/// Gives the row a buffer of its own with what is in its present one, which it gives up and
/// returns.
KoPtr<KoRowBuf> BaseRow::copyBuffer() {
  const byte_t* const shared = rowBuf();
  KoPtr<KoRowBuf> own = bufferOf(shared, loadField<len_t>(shared + rowLengthOffset));
  rowBuf_.swap(own);
  return own;
}

void BaseRow::installNew(len_t length, std::uint16_t rowType, oid_t oid) {
  KoPtr<KoRowBuf> own = std::make_shared<KoRowBuf>();
  byte_t* const buf = static_cast<byte_t*>(std::calloc(length, 1));
  if (buf == nullptr) throw std::bad_alloc();
  own->buf_ = buf;
  storeField<len_t>(buf + rowLengthOffset, length);
  storeField<std::uint16_t>(buf + rowTypeOffset, rowType);
  storeField<oid_t>(buf + rowOidOffset, oid);
  rowBuf_ = std::move(own);
}

void BaseRow::installCopy(const void* bytes, std::size_t length, len_t baseLength,
                          std::uint16_t rowType) {
  const auto refuse = [](const std::string& reason) {
    throw KoInvalidArgument("Invalid Row - (" + reason + ")");
  };
  if (length < rowHeaderLength) refuse("no room for a header");
  const len_t said = loadField<len_t>(static_cast<const byte_t*>(bytes) + rowLengthOffset);
  if (said != length) {
    refuse("header says " + std::to_string(said) + " bytes, received " + std::to_string(length));
  }
  if (length < baseLength) refuse("shorter than the table's columns");
  KoPtr<KoRowBuf> own = bufferOf(bytes, length);
  // The bytes may stand in shared memory: the length that was checked is the one that counts.
  storeField<len_t>(own->buf_ + rowLengthOffset, said);
  if (loadField<std::uint16_t>(own->buf_ + rowTypeOffset) != rowType) refuse("another row type");
  rowBuf_ = std::move(own);
}

void BaseRow::clearRow() {
  if (isNull() || rowLength() < rowOidOffset) return;
  byte_t* const buf = exclusiveBuf();
  std::memset(buf + rowOidOffset, 0, loadField<len_t>(buf) - std::size_t{rowOidOffset});
}

// ---------------------------------------------------------------------------------------------
// Writers

void BaseRow::failSetColumn(const char* type, bool isArray) const {
  if (isNull()) throwNullRow();
  const std::string value = isArray ? "const std::vector<T>&" : "const T&";
  const std::string signature = "void Korvo::BaseRow::setColumn(Korvo::len_t, " + value +
                                ", Korvo::len_t) [with T = " + type +
                                "; Korvo::len_t = short unsigned int]";
  detail::assertionFailed("fdLen != 0", thisFile, __LINE__, signature.c_str());
}

void BaseRow::clearColumn(len_t slotOffset) {
  VColType::at(exclusiveBuf(), slotOffset).clear();
}

void BaseRow::copyVarColumn(len_t srcSlotOffset, const BaseRow& src, len_t dstSlotOffset,
                            len_t fdLen) {
  const byte_t* const from = src.rowBuf();
  const VColType slot = VColType::at(from, srcSlotOffset);
  if (slot.length() != 0) {
    detail::EncodedValue value{from + slot.offset(), slot.length()};
    value.isArray = slot.isArray();
    return write(dstSlotOffset, value, fdLen, {});
  }
  VColType::at(exclusiveBuf(), dstSlotOffset).valueIs(0, 0, slot.isArray());
}

// ---------------------------------------------------------------------------------------------
// Decoding

void BaseRow::decodeValue(const byte_t* src, len_t length, IpGenAddr& out) {
  const bool wellFormed = length == 0 || length == ipv4Length || length == ipv6Length;
  KORVO_ASSERT(wellFormed, "0", thisFile,
               "static void Korvo::BaseRow::decode(const void*, Korvo::len_t, T&) "
               "[with T = Korvo::IpGenAddr; Korvo::len_t = short unsigned int]");
  // Of an empty value, which has no family, the first word is taken over all the same.
  out = IpGenAddr(detail::familyOfAddress(length), src);
}

void BaseRow::decodeValue(const byte_t* src, len_t length, IpGenPrefix& out) {
  const bool wellFormed = length == 0 || length == ipv4Length + 1 || length == ipv6Length + 1;
  KORVO_ASSERT(wellFormed, "0", thisFile,
               "static void Korvo::BaseRow::decode(const void*, Korvo::len_t, T&) "
               "[with T = Korvo::IpGenPrefix; Korvo::len_t = short unsigned int]");
  out.reset();
  out.addrIs(IpGenAddr(detail::familyOfPrefix(length), src + 1));
  out.maskIs(src[0]);  // refuses host bits
}

// ---------------------------------------------------------------------------------------------
// Text

std::string BaseRow::toString() const {
  if (isNull()) return "len = 0, NULL";
  std::string text;
  text.reserve(48);
  text.append("len = ").append(std::to_string(rowLength()));
  text.append(", type = ").append(std::to_string(rowType()));
  text.append(", oid = ").append(std::to_string(rowOid()));
  return text;
}

std::ostream& operator<<(std::ostream& os, const BaseRow& row) {
  if (row.isNull()) return os << row.BaseRow::toString();
  const std::ios_base::fmtflags before = os.setf(std::ios_base::dec, std::ios_base::basefield);
  os << "len = " << row.rowLength() << ", type = " << row.rowType() << ", oid = " << row.rowOid();
  os.setf(before & std::ios_base::basefield, std::ios_base::basefield);
  return os;
}

std::ostream& operator<<(std::ostream& os, const StringValueReference& text) {
  return os.write(text.data(), text.length());
}

std::ostream& operator<<(std::ostream& os, const FMT<StringValueReference>& text) {
  return os << '"' << escapeString(std::string(text.value().view())) << '"';
}

std::ostream& operator<<(std::ostream& os, const IpGenAddrReference& addr) {
  if (addr.addr() == nullptr) return os << "<null>";
  // A reference without a family may stand before fewer than 4 bytes; none of them is printed.
  return os << (addr.af() == unknown_ ? IpGenAddr() : IpGenAddr(addr.af(), addr.addr()));
}

std::ostream& operator<<(std::ostream& os, const IpGenPrefixReference& prefix) {
  if (prefix.addr() == nullptr) return os << "<null>";
  if (prefix.af() == unknown_) return os << IpGenPrefix(IpGenAddr(), prefix.mask());
  return os << IpGenPrefix(prefix.af(), prefix.mask(), prefix.addr());
}

}  // namespace Korvo
