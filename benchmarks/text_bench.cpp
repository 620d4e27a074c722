// The text helpers beside other libraries' functions for the same work, in one run.
//
// Each benchmark is named operation/contestant; "korvo" is this library. The inputs are the same
// for all contestants of an operation, and so are the results: a contestant whose result differs is
// not measured, and the program stops.

#include <Korvo/KoStrUtils.h>

#include <absl/strings/escaping.h>
#include <absl/strings/match.h>
#include <absl/strings/numbers.h>
#include <absl/strings/str_replace.h>
#include <absl/strings/str_split.h>
#include <benchmark/benchmark.h>
#include <openssl/sha.h>
#ifdef __SSE2__
#define RAPIDJSON_SSE2  // at its best
#endif
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <re2/re2.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Korvo::KoStrUtils;

constexpr std::size_t mebibyte = std::size_t{1} << 20;

/// Words of printable letters and, on the average, one of `specials` in `every` bytes.
std::string text(std::size_t size, std::string_view specials, unsigned int every) {
  std::mt19937 random(1);
  std::string result;
  while (result.size() < size) {
    if (!specials.empty() && random() % every == 0) {
      result += specials[random() % specials.size()];
    } else {
      result += random() % 6 == 0 ? ' ' : static_cast<char>('a' + random() % 26);
    }
  }
  return result;
}

/// A statement with comments, quoted texts, indentation and line ends.
std::string statements(std::size_t size) {
  std::mt19937 random(1);
  std::string result;
  while (result.size() < size) {
    result += "select  name, 'a /* quoted */ text', count\n\t\tfrom table";
    result += std::to_string(random() % 1000);
    if (random() % 3 == 0) result += " /* a comment of some length that goes away */ ";
    if (random() % 4 == 0) result += "\n  where  rate / 2 > 10  and  label = \"x\\\" y\"";
    result += "\n  into Type named query;\n";
  }
  return result;
}

/// Runs `work` on `input` and counts its bytes.
template <typename Work>
void measure(benchmark::State& state, const std::string& input, const Work& work) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(input.data());
    auto result = work(input);
    benchmark::DoNotOptimize(result);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(input.size()));
}

/// Stops the program if two contestants of an operation give results of one type that differ.
template <typename Result>
void requireSame(const std::string& name, const Result& result) {
  static std::map<std::string, Result> results;
  const auto [first, isFirst] = results.emplace(name.substr(0, name.find('/')), result);
  if (isFirst || first->second == result) return;
  std::fprintf(stderr, "contestants differ: %s\n", name.c_str());
  std::exit(1);
}

/// One contestant for one operation.
template <typename Work>
void add(const std::string& name, const std::string& input, Work work) {
  requireSame(name, work(input));
  benchmark::RegisterBenchmark(
      name.c_str(), [input, work](benchmark::State& state) { measure(state, input, work); });
}

// -------------------------------------------------------------------------------------------------

std::string escapedByRapidJson(const std::string& t) {
  static rapidjson::StringBuffer buffer;
  buffer.Clear();
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(t.data(), static_cast<rapidjson::SizeType>(t.size()));
  return {buffer.GetString() + 1, buffer.GetSize() - 2};  // without the quotes
}

/// Takes the text between quotes, as this parser wants it.
std::string unescapedByRapidJson(const std::string& quoted) {
  struct Keep : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Keep> {
    bool String(const char* data, rapidjson::SizeType size, bool) {
      text.assign(data, size);
      return true;
    }
    std::string text;
  };
  static rapidjson::Reader reader;
  Keep keep;
  rapidjson::StringStream stream(quoted.c_str());
  reader.Parse(stream, keep);
  return std::move(keep.text);
}

void addEscaping() {
  for (const unsigned int every : {40u, 8u, 1000000000u}) {
    const std::string label = every == 40 ? "" : every == 8 ? "_crowded" : "_plain";
    const std::string plain = text(mebibyte, "\n\t\"\\", every);
    add("escape" + label + "/korvo", plain, [](const auto& t) { return Korvo::escapeString(t); });
    add("escape" + label + "/CEscape", plain, [](const auto& t) { return absl::CEscape(t); });
    add("escape" + label + "/RapidJSON", plain, escapedByRapidJson);
    add("escape" + label + "/StrReplaceAll", plain, [](const auto& t) {
      return absl::StrReplaceAll(t, {{"\n", "\\n"}, {"\t", "\\t"}, {"\"", "\\\""}, {"\\", "\\\\"}});
    });

    const std::string escaped = Korvo::escapeString(plain);
    add("unescape" + label + "/korvo", escaped,
        [](const auto& t) { return Korvo::deescapeString(t); });
    add("unescape" + label + "/CUnescape", escaped, [](const auto& t) {
      std::string result;
      absl::CUnescape(t, &result);
      return result;
    });
    add("unescape" + label + "/RapidJSON", '"' + escaped + '"', unescapedByRapidJson);
    add("unescape" + label + "/StrReplaceAll", escaped, [](const auto& t) {
      return absl::StrReplaceAll(t, {{"\\n", "\n"}, {"\\t", "\t"}, {"\\\"", "\""}, {"\\\\", "\\"}});
    });

    const std::string quotes = text(mebibyte, "\"", every);
    add("escapeQuotes" + label + "/korvo", quotes,
        [](const auto& t) { return KoStrUtils::escapeString(t); });
    add("escapeQuotes" + label + "/StrReplaceAll", quotes, [](const auto& t) {
      return absl::StrReplaceAll(t, {{"\"", "\\\""}});
    });
  }
}

void addBlanking() {
  const std::string input = text(mebibyte, "\n\t\x80\xff", 20);
  add("replaceCtrl/korvo", input, [](const auto& t) { return KoStrUtils::replaceCtrl(t); });
  benchmark::RegisterBenchmark("replaceCtrl/memcpy", [input](benchmark::State& state) {
    measure(state, input, [](const auto& t) { return std::string(t); });
  });
}

void addSplitting() {
  for (const unsigned int every : {6u, 40u}) {
    const std::string label = every == 6 ? "_words" : "_fields";
    const std::string input = text(std::size_t{64} << 10, ",", every) + 'x';
    add("split" + label + "/korvo", input, [](const auto& t) {
      std::vector<std::string> out;
      KoStrUtils::split(t, ',', out);
      return out;
    });
    add("split" + label + "/StrSplit", input,
        [](const auto& t) { return std::vector<std::string>(absl::StrSplit(t, ',')); });
    add("splitString" + label + "/korvo", input, [](const auto& t) {
      std::vector<std::string> out;
      Korvo::splitString(t, ',', out);
      return out;
    });
    add("splitString" + label + "/StrSplit", input, [](const auto& t) {
      return std::vector<std::string>(absl::StrSplit(t, ',', absl::SkipEmpty()));
    });
    add("processArrayString" + label + "/korvo", input,
        [](const auto& t) { return Korvo::processArrayString(t); });
  }
  const std::string address = "2001:db8:0:1:2:3:4:5";
  add("splitString_address/korvo", address, [](const auto& t) {
    std::vector<std::string> out;
    Korvo::splitString(t, ':', out);
    return out;
  });
  add("splitString_address/StrSplit", address, [](const auto& t) {
    return std::vector<std::string>(absl::StrSplit(t, ':', absl::SkipEmpty()));
  });
}

/// The steps of canonicalising as replacements, one after the other.
std::string canonicalByRe2(std::string t) {
  static const RE2 comment(R"re(("(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*')|/\*(?s:.*?)\*/)re");
  static const RE2 control(R"re([\x00-\x1f\x80-\xff])re", RE2::Latin1);
  static const RE2 blanks(" {2,}");
  static const RE2 ends("^ +| +$");
  RE2::GlobalReplace(&t, comment, "\\1");
  RE2::GlobalReplace(&t, control, " ");
  RE2::GlobalReplace(&t, blanks, " ");
  RE2::GlobalReplace(&t, ends, "");
  return t;
}

std::string canonicalByRegex(std::string t) {
  constexpr auto compiled = std::regex::ECMAScript | std::regex::optimize;
  static const std::regex comment(
      R"re(("(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)*')|/\*[^*]*\*+(?:[^/*][^*]*\*+)*/)re", compiled);
  static const std::regex control("[\\x01-\\x1f]", compiled);
  static const std::regex blanks(" {2,}", compiled);
  static const std::regex ends("^ +| +$", compiled);
  t = std::regex_replace(t, comment, "$1");
  t = std::regex_replace(t, control, " ");
  t = std::regex_replace(t, blanks, " ");
  return std::regex_replace(t, ends, "");
}

/// The same steps one after the other, as they are written first.
std::string canonicalStepByStep(const std::string& t) {
  std::string uncommented;
  for (std::size_t at = 0; at < t.size();) {
    if (t[at] == '"' || t[at] == '\'') {
      std::size_t end = at + 1;
      while (t[end] != t[at] || t[end - 1] == '\\') ++end;
      uncommented += t.substr(at, end + 1 - at);
      at = end + 1;
    } else if (t.compare(at, 2, "/*") == 0) {
      at = t.find("*/", at + 1) + 2;
    } else {
      uncommented += t[at++];
    }
  }
  std::string blanked;
  for (const char c : uncommented) blanked += static_cast<signed char>(c) < ' ' ? ' ' : c;
  std::string single;
  for (const char c : blanked) {
    if (c != ' ' || single.empty() || single.back() != ' ') single += c;
  }
  const std::size_t first = single.find_first_not_of(' ');
  if (first == single.npos) return "";
  return single.substr(first, single.find_last_not_of(' ') - first + 1);
}

void addCanonicalising() {
  for (const std::size_t size : {std::size_t{200}, std::size_t{64} << 10}) {
    const std::string label = size == 200 ? "_200" : "_64Ki";
    const std::string input = statements(size);
    add("canonicalize" + label + "/korvo", input,
        [](const auto& t) { return KoStrUtils::canonicalize(t); });
    add("canonicalize" + label + "/RE2", input, [](const auto& t) { return canonicalByRe2(t); });
    add("canonicalize" + label + "/regex", input, canonicalByRegex);
    add("canonicalize" + label + "/steps", input, canonicalStepByStep);
  }
}

void addQueryNames() {
  const std::string query = "select name , count from table where rate > 10 into Type named query;";
  add("extractQueryName/korvo", query,
      [](const auto& t) { return KoStrUtils::extractQueryName(t); });
  add("extractQueryName/StrSplit", query, [](const auto& t) {
    const std::vector<absl::string_view> words = absl::StrSplit(t, ' ');
    return std::string(words.back().substr(0, words.back().rfind(';')));
  });
}

// -------------------------------------------------------------------------------------------------

void addConversions() {
  for (const char* digits : {"7", "12345", "1234567890", "18446744073709551615"}) {
    const std::string label = "toUint64_" + std::to_string(std::strlen(digits));
    add(label + "/korvo", digits, [](const auto& t) { return KoStrUtils::stoUint64_t(t); });
    add(label + "/from_chars", digits, [](const auto& t) {
      std::uint64_t value = 0;
      std::from_chars(t.data(), t.data() + t.size(), value);
      return value;
    });
    add(label + "/strtoull", digits,
        [](const auto& t) -> std::uint64_t { return std::strtoull(t.c_str(), nullptr, 10); });
    add(label + "/SimpleAtoi", digits, [](const auto& t) {
      std::uint64_t value = 0;
      benchmark::DoNotOptimize(absl::SimpleAtoi(t, &value));
      return value;
    });
  }
  for (const char* number : {"1.5", "3.14159265358979"}) {
    const std::string label = "toDouble_" + std::to_string(std::strlen(number));
    add(label + "/korvo", number, [](const auto& t) { return KoStrUtils::stoDouble(t); });
    add(label + "/strtod", number, [](const auto& t) { return std::strtod(t.c_str(), nullptr); });
    add(label + "/stod", number, [](const auto& t) { return std::stod(t); });
  }
}

void addComparison() {
  const std::string lower(24, 'x');
  const std::string upper(24, 'X');
  add("iequals/korvo", lower, [upper](const auto& t) { return KoStrUtils::iequals(t, upper); });
  add("iequals/strcasecmp", lower,
      [upper](const auto& t) { return strcasecmp(t.c_str(), upper.c_str()) == 0; });
  add("iequals/EqualsIgnoreCase", lower,
      [upper](const auto& t) { return absl::EqualsIgnoreCase(t, upper); });
}

void addDigest() {
  for (const std::size_t size : {std::size_t{64}, std::size_t{64} << 10}) {
    const std::string label = "sha1_" + std::to_string(size);
    const std::string input(size, 'x');
    add(label + "/korvo", input, [](const auto& t) { return KoStrUtils::sha1(t); });
    add(label + "/SHA1", input, [](const auto& t) {
      unsigned char digest[SHA_DIGEST_LENGTH];
      SHA1(reinterpret_cast<const unsigned char*>(t.data()), t.size(), digest);
      benchmark::DoNotOptimize(digest);
      return digest[0];
    });
  }
}

}  // namespace

int main(int argc, char** argv) {
  addEscaping();
  addBlanking();
  addSplitting();
  addCanonicalising();
  addQueryNames();
  addConversions();
  addComparison();
  addDigest();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
