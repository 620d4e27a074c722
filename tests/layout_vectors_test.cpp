// The golden vectors: the library says of every row what they say.

#include <Korvo/AnyRow.h>
#include <Korvo/rowCheck.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Korvo;  // NOLINT

struct Vector {
  std::string file;
  std::multimap<std::string, std::string> lines;

  bool has(const std::string& key) const { return lines.count(key) != 0; }
  const std::string& operator[](const std::string& key) const {
    const auto found = lines.find(key);
    if (found == lines.end()) throw std::runtime_error("no " + key);
    return found->second;
  }
};

std::vector<Vector> readVectors() {
  std::vector<Vector> vectors;
  for (const auto& entry : std::filesystem::directory_iterator(KORVO_TEST_VECTORS)) {
    if (entry.path().extension() != ".txt") continue;
    std::ifstream in(entry.path());
    const std::string file = entry.path().filename();
    Vector vector{file, {}};
    for (std::string line; std::getline(in, line);) {
      if (line.starts_with('#')) continue;
      if (line.empty()) {
        if (!vector.lines.empty()) vectors.push_back(std::exchange(vector, {file, {}}));
        continue;
      }
      const std::size_t colon = line.find(": ");
      const std::size_t keyEnd = colon == line.npos ? line.size() - 1 : colon;
      vector.lines.emplace(line.substr(0, keyEnd),
                           colon == line.npos ? "" : line.substr(colon + 2));
    }
    if (!vector.lines.empty()) vectors.push_back(vector);
  }
  return vectors;
}

std::vector<byte_t> bytesOf(const std::string& hex) {
  std::vector<byte_t> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 3) {
    bytes.push_back(static_cast<byte_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

const std::map<RowFaultKind, std::string> faultNames = {
    {RowFaultKind::none, "ok"},
    {RowFaultKind::shortHeader, "shortHeader"},
    {RowFaultKind::truncated, "truncated"},
    {RowFaultKind::trailingBytes, "trailingBytes"},
    {RowFaultKind::shortFixedArea, "shortFixedArea"},
    {RowFaultKind::valueInHeader, "valueInHeader"},
    {RowFaultKind::valueBeyondRow, "valueBeyondRow"},
    {RowFaultKind::overlap, "overlap"},
    {RowFaultKind::arrayMark, "arrayMark"},
    {RowFaultKind::elementMark, "elementMark"},
    {RowFaultKind::arrayLength, "arrayLength"},
    {RowFaultKind::elementOutside, "elementOutside"},
    {RowFaultKind::addressLength, "addressLength"},
    {RowFaultKind::prefixLength, "prefixLength"},
    {RowFaultKind::prefixBits, "prefixBits"},
    {RowFaultKind::hostBits, "hostBits"},
    {RowFaultKind::nestedLength, "nestedLength"},
};

std::string checkText(const RowFault& fault) {
  const std::string& name = faultNames.at(fault.kind);
  return fault ? name + ' ' + std::to_string(fault.offset) : name;
}

unsigned int hashOf(const AnyRow& row, const ColumnInfo& column) {
  switch (column.type) {
    case stringType_:
      return row.columnHash<StringValueReference>(column.offset);
    case ipGenAddrType_:
      return row.columnHash<IpGenAddrReference>(column.offset);
    default:
      return row.columnHash<IpGenPrefixReference>(column.offset);
  }
}

void expectVector(const Vector& vector) {
  const DynamicLayout layout(vector["layout"]);
  EXPECT_EQ(layout.fingerprint().digest(), vector["fingerprint"]);

  const std::vector<byte_t> bytes = bytesOf(vector["bytes"]);
  const PrefixRule rule = vector.has("prefixes") ? PrefixRule::noHostBits : PrefixRule::anyBits;
  if (vector.has("prefixes")) {
    EXPECT_EQ(vector["prefixes"], "noHostBits");
  }
  const RowFault fault = checkRow(bytes.data(), bytes.size(), layout.info(), rule);
  EXPECT_EQ(checkText(fault), vector["check"]);
  EXPECT_EQ(vector.has("json"), !fault);
  if (fault) return;

  AnyRow row(layout);
  row.adopt(bytes.data(), bytes.size());
  const std::string& json = vector["json"];
  EXPECT_EQ(row.toJson(), json);
  const auto [first, last] = vector.lines.equal_range("hash");
  for (auto hash = first; hash != last; ++hash) {
    const std::string& text = hash->second;
    const std::size_t blank = text.rfind(' ');
    const ColumnInfo* const column = layout.find(text.substr(0, blank));
    ASSERT_NE(column, nullptr);
    EXPECT_EQ(std::to_string(hashOf(row, *column)), text.substr(blank + 1));
  }

  AnyRow made(layout);
  made.fromJson(json);
  EXPECT_FALSE(checkRow(made.rowBuf(), made.rowLength(), layout.info(), rule));
  EXPECT_EQ(made.toJson(), json);
  for (const ColumnInfo& column : layout.info().columns) {
    EXPECT_EQ(made.json(column.name), row.json(column.name));
    made.textIs(column.name, row.text(column.name));  // a byte that is no UTF-8 comes through
    EXPECT_EQ(made.text(column.name), row.text(column.name));
  }
}

TEST(LayoutVectorsTest, AllHold) {
  const std::vector<Vector> vectors = readVectors();
  ASSERT_GT(vectors.size(), 80U);
  std::set<std::string> checks;
  std::set<std::string> files;
  for (const Vector& vector : vectors) {
    SCOPED_TRACE(vector.file + ": " + vector["name"]);
    expectVector(vector);
    checks.insert(vector["check"].substr(0, vector["check"].find(' ')));
    files.insert(vector.file);
  }
  EXPECT_EQ(files.size(), 6U);
  for (const auto& [kind, name] : faultNames) {
    EXPECT_TRUE(checks.contains(name)) << "no vector has " << name;
  }
}

}  // namespace
