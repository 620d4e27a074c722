// korvo address, korvo prefix, korvo query: what the library makes of texts.

#include "commands.h"
#include "failure.h"
#include "layouts.h"
#include "prefixText.h"

#include <Korvo/KoStrUtils.h>
#include <Korvo/korvo_types.h>

#include <algorithm>
#include <optional>

namespace korvotool {
namespace {

using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::KoStrUtils;

/// Throws Failure in the library's words.
template <typename T>
T parsed(const std::string& text) {
  try {
    return T(text);
  } catch (const Korvo::KoBaseException& e) {
    throw Failure(statusBadData, e.what());
  }
}

const char* familyText(Korvo::AddressFamily af) {
  return af == Korvo::ipv6_ ? "ipv6" : "ipv4";
}

std::string bytesText(const IpGenAddr& addr) {
  constexpr char hexDigits[] = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < addr.addressLengthBytes(); ++i) {
    if (i != 0) text += ' ';
    text += hexDigits[addr.bytes()[i] >> 4];
    text += hexDigits[addr.bytes()[i] & 0xF];
  }
  return text;
}

/// The last address of the prefix.
IpGenAddr lastOf(const IpGenPrefix& prefix) {
  unsigned char bytes[16];
  std::copy_n(prefix.addr().bytes(), sizeof bytes, bytes);
  const auto bits = 8 * static_cast<unsigned int>(prefix.addr().addressLengthBytes());
  for (unsigned int bit = prefix.mask(); bit < bits; ++bit) {
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] | 0x80U >> bit % 8);
  }
  return {prefix.addr().af(), bytes};
}

/// Lines of a name and a value, or one object.
class Answer {
 public:
  Answer& add(const std::string& name, const std::string& value) {
    json_.add(name, value);
    constexpr std::size_t width = 8;
    std::string padded = name;
    padded.resize(std::max(width, name.size() + 1), ' ');
    text_ += padded + value + '\n';
    return *this;
  }

  void print(Output& out, bool asJson, bool isFirst) const {
    if (asJson) {
      out << json_.text() << "\n";
    } else {
      out << (isFirst ? "" : "\n") << text_;
    }
  }

 private:
  Json json_ = Json::object();
  std::string text_;
};

}  // namespace

IpGenPrefix parsedPrefixOrAddress(const std::string& text) {
  if (text.find('/') != text.npos) return parsed<IpGenPrefix>(text);
  const auto addr = parsed<IpGenAddr>(text);
  return {addr, 8 * static_cast<unsigned int>(addr.addressLengthBytes())};
}

bool containsAll(const IpGenPrefix& prefix, const IpGenPrefix& other) {
  // The library looks at the address alone; a shorter prefix has more than this one.
  return prefix.contains(other) && prefix.mask() <= other.mask();
}

int parseAddresses(const TextOptions& options) {
  Output out;
  bool isFirst = true;
  for (const std::string& text : options.texts) {
    const auto addr = parsed<IpGenAddr>(text);
    Answer answer;
    answer.add("address", inserted(addr)).add("short", addr.toShortString());
    answer.add("family", familyText(addr.af())).add("bytes", bytesText(addr));
    answer.print(out, options.json, isFirst);
    isFirst = false;
  }
  out.finish();
  return statusGood;
}

int parsePrefixes(const TextOptions& options) {
  Output out;
  bool isFirst = true;
  for (const std::string& text : options.texts) {
    const auto prefix = parsed<IpGenPrefix>(text);
    Answer answer;
    answer.add("prefix", inserted(prefix)).add("short", prefix.toShortString());
    answer.add("family", familyText(prefix.addr().af()));
    answer.add("first", inserted(prefix.addr())).add("last", inserted(lastOf(prefix)));
    answer.add("bytes", bytesText(prefix.addr()));
    answer.print(out, options.json, isFirst);
    isFirst = false;
  }
  out.finish();
  return statusGood;
}

int containsPrefixes(const TextOptions& options) {
  Output out;
  const auto prefix = parsed<IpGenPrefix>(options.texts.front());
  bool all = true;
  for (std::size_t i = 1; i < options.texts.size(); ++i) {
    const IpGenPrefix other = parsedPrefixOrAddress(options.texts[i]);
    const bool contains = containsAll(prefix, other);
    all = all && contains;
    if (options.json) {
      Json json = Json::object();
      json.add("prefix", inserted(prefix)).add("other", options.texts[i]);
      out << json.add("contains", contains).text() << "\n";
    } else {
      out << options.texts[i] << (contains ? " yes" : " no") << "\n";
    }
  }
  out.finish();
  return all ? statusGood : statusFound;
}

int orderPrefixes(const TextOptions& options) {
  std::vector<IpGenPrefix> prefixes;
  for (const std::string& text : options.texts) prefixes.push_back(parsed<IpGenPrefix>(text));
  std::stable_sort(prefixes.begin(), prefixes.end());
  Output out;
  Json json = Json::array();
  for (const IpGenPrefix& prefix : prefixes) {
    if (options.json) {
      json.append(inserted(prefix));
    } else {
      out << inserted(prefix) << "\n";
    }
  }
  if (options.json) out << json.text() << "\n";
  out.finish();
  return statusGood;
}

int describeQuery(const TextOptions& options) {
  std::string text = options.texts.front();
  if (text == "-") text = textOfFile(text);
  std::string query;
  try {
    query = KoStrUtils::canonicalize(text);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    throw Failure(statusBadData, "a quote or a comment does not end");
  }
  // Asked for a type that is not there, the library stops the process.
  std::vector<std::string> words;
  KoStrUtils::split(query, ' ', words);
  const auto isInto = [&](std::size_t fromTheEnd) {
    return words.size() >= fromTheEnd &&
           KoStrUtils::iequals(words[words.size() - fromTheEnd], "into");
  };
  std::optional<std::string> type;
  if (isInto(2) || isInto(4)) type = KoStrUtils::extractOutputType(query);
  const std::string name = KoStrUtils::extractQueryName(query);
  Output out;
  if (options.json) {
    Json json = Json::object();
    json.add("query", query);
    if (!name.empty()) json.add("name", name);
    if (type) json.add("type", *type);
    out << json.text() << "\n";
  } else {
    out << "query   " << printable(query) << "\n";
    if (!name.empty()) out << "name    " << printable(name) << "\n";
    if (type) out << "type    " << printable(*type) << "\n";
  }
  out.finish();
  return statusGood;
}

}  // namespace korvotool
