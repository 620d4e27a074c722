// Layouts and rows of layouts known at run time when memory runs out: every allocation of every
// operation fails in turn, and all that was there is as before.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <Korvo/RowConverter.h>
#include <Korvo/rowCheck.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace Korvo;
using alloctest::failEachAllocation;
using alloctest::Snapshot;

const DynamicLayout& theirs() {
  static const DynamicLayout layout(
      "row 7 base 38 { speed uint32_t @8 \"a name of a column, longer than a short string\" "
      "string_t @12 tags string_t[] @16 dropped string_t @20 net IpGenPrefix @24 "
      "link row 2 base 13 { up bool @8 peer IpGenAddr @9 } @28 flags bool[] @32 mtu uint16_t @36 "
      "}");
  return layout;
}

const DynamicLayout& ours() {
  static const DynamicLayout layout(
      "row 7 base 44 { speed uint64_t @8 \"a name of a column, longer than a short string\" "
      "string_t @16 tags string_t[] @20 net IpGenPrefix @24 link row 2 base 17 { up bool @8 "
      "peer IpGenAddr @9 load float @13 } @28 flags bool[] @32 mtu uint16_t @36 missing string_t "
      "@40 }");
  return layout;
}

using OwnLink = RowLayout<2, Column<"up", bool>, Column<"peer", IpGenAddr>>;
using Own = TableRow<RowLayout<7, Column<"tags", std::vector<std::string>>,
                               Column<"link", Nested<OwnLink>>, Column<"mtu", std::uint32_t>>>;

constexpr const char* json =
    R"({"speed":10000,"a name of a column, longer than a short string":"a text longer than short",)"
    R"("tags":["one","an element that is longer than a short string",""],"dropped":"a text that )"
    R"(nobody keeps, and as long as some","net":"10.0.0.0/8","link":{"up":true,"peer":"::1"},)"
    R"("flags":[true,false],"mtu":1500})";

struct Subject {
  AnyRow row{theirs()};
  AnyRow sharer{theirs()};  // of the same buffer, or null
  AnyRow source{theirs()};
  AnyRow ourRow{ours()};
  Own ownRow;
  std::string result = "a text that was there before, and is long";
  std::unique_ptr<DynamicLayout> layout;
};

void append(Snapshot& to, const BaseRow& row) {
  if (row.isNull()) {
    to.contents += "null;";
    to.places.push_back(nullptr);
    return;
  }
  to.contents.append(reinterpret_cast<const char*>(row.rowBuf()), row.rowLength()) += ';';
  to.places.push_back(row.rowBuf());
}

Snapshot look(const Subject& subject) {
  Snapshot all;
  append(all, subject.row);
  append(all, subject.sharer);
  append(all, subject.source);
  append(all, subject.ourRow);
  append(all, subject.ownRow);
  all.contents += subject.row.layout().text() + subject.ourRow.layout().text() + subject.result;
  if (subject.layout) all.contents += subject.layout->text();
  return all;
}

enum class State { null, full, shared };

Subject make(State state) {
  Subject subject;
  subject.source.create(1001);
  subject.source.fromJson(json);
  if (state == State::null) return subject;
  subject.row.create(5);
  subject.row.fromJson(R"({"speed":1,"tags":["a text that was there before"],"flags":[true]})");
  subject.ourRow.create(6);
  subject.ownRow.create(7);
  if (state == State::shared) subject.sharer = subject.row;
  return subject;
}

struct Operation {
  const char* name;
  std::function<void(Subject&)> run;
};

/// Runs the operations in every state; each has to allocate in one of them at least.
void inEveryState(const std::vector<Operation>& operations) {
  for (const auto& [name, run] : operations) {
    unsigned failing = 0;
    for (const State state : {State::null, State::full, State::shared}) {
      failing += failEachAllocation(
          std::string(name) + ", state " + std::to_string(static_cast<int>(state)),
          [state] { return make(state); }, run, look);
    }
    EXPECT_GT(failing, 0U) << name << " allocates nothing";
  }
}

TEST(AllocationFailuresOfLayouts, OfReadingThem) {
  inEveryState({
      {"text",
       [text = theirs().text()](Subject& s) { s.layout = std::make_unique<DynamicLayout>(text); }},
      {"declared layout",
       [](Subject& s) { s.layout = std::make_unique<DynamicLayout>(Own::Layout::info); }},
      {"text that ends",
       [](Subject& s) {
         s.layout = std::make_unique<DynamicLayout>("row 7 base 12 { a string_t @8 b");
       }},
      {"names used twice",
       [](Subject& s) {
         s.layout = std::make_unique<DynamicLayout>("row 7 base 16 { a string_t @8 a bool @12 }");
       }},
      {"columns that overlap",
       [](Subject& s) {
         s.layout = std::make_unique<DynamicLayout>("row 7 base 16 { a string_t @8 b bool @9 }");
       }},
      {"canonical text", [](Subject& s) { s.result = theirs().text(); }},
      {"digest", [](Subject& s) { s.result = theirs().fingerprint().digest(); }},
  });
}

TEST(AllocationFailuresOfLayouts, OfComparingThem) {
  inEveryState({
      {"comparison",
       [](Subject& s) { s.result = LayoutComparison(theirs().info(), ours().info()).text(); }},
      {"refusal",
       [](Subject& s) {
         s.result = LayoutComparison(ours().info(), theirs().info(), {{}, {"link.up"}}).refusal();
       }},
      {"rules that name no column",
       [](Subject& s) {
         const ConversionRules rules = {{}, {"a column that there is not, with a long name"}};
         s.result = LayoutComparison(theirs().info(), ours().info(), rules).text();
       }},
  });
}

TEST(AllocationFailuresOfConversion, OfMakingAConverter) {
  inEveryState({
      {"converter",
       [](Subject& s) {
         const RowConverter<AnyRow> converter(theirs().info(), ours());
         s.result = converter.comparison().text();
       }},
      {"converter to a class",
       [](Subject& s) {
         const RowConverter<Own> converter(theirs().info());
         s.result = converter.comparison().text();
       }},
      {"refused", [](Subject&) { const RowConverter<AnyRow> none(ours().info(), theirs()); }},
  });
}

TEST(AllocationFailuresOfConversion, OfRows) {
  const RowConverter<AnyRow> toOurs(theirs().info(), ours());
  const RowConverter<AnyRow> toTheSame(theirs().info(), theirs());
  const RowConverter<Own> toOwn(theirs().info());
  inEveryState({
      {"another layout",
       [&](Subject& s) { toOurs.convert(s.source.rowBuf(), s.source.rowLength(), s.ourRow); }},
      {"another layout than the row had",
       [&](Subject& s) { toOurs.convert(s.source.rowBuf(), s.source.rowLength(), s.row); }},
      {"the same layout",
       [&](Subject& s) { toTheSame.convert(s.source.rowBuf(), s.source.rowLength(), s.row); }},
      {"a row class, much shorter",
       [&](Subject& s) { toOwn.convert(s.source.rowBuf(), s.source.rowLength(), s.ownRow); }},
      {"a row of another length",
       [&](Subject& s) { toOurs.convert(s.source.rowBuf(), s.source.rowLength() - 1U, s.ourRow); }},
  });
}

TEST(AllocationFailuresOfAnyRow, OfWriting) {
  inEveryState({
      {"create", [](Subject& s) { s.row.create(9, 100); }},
      {"adopt", [](Subject& s) { s.row.adopt(s.source.rowBuf(), s.source.rowLength()); }},
      {"fromJson", [](Subject& s) { s.row.fromJson(json); }},
      {"fromJson that does not fit",
       [](Subject& s) { s.row.fromJson(R"({"tags":["a text, longer than short"],"mtu":65536})"); }},
      {"fromJson that is none", [](Subject& s) { s.row.fromJson(R"({"speed":1,)"); }},
      {"number", [](Subject& s) { s.row.jsonIs("speed", "77"); }},
      {"array", [](Subject& s) { s.row.jsonIs("tags", R"(["a text, longer than a short one"])"); }},
      {"nested row", [](Subject& s) { s.row.jsonIs("link", R"({"up":true,"peer":"1.2.3.4"})"); }},
      {"array of bool", [](Subject& s) { s.row.jsonIs("flags", "[true,true,true,true]"); }},
      {"text", [](Subject& s) { s.row.textIs("dropped", "a text that is longer than before"); }},
      {"prefix", [](Subject& s) { s.row.textIs("net", "2001:db8::/32"); }},
      {"null", [](Subject& s) { s.row.textIs("net", ""); }},
      {"no prefix", [](Subject& s) { s.row.textIs("net", "2001:db8::/129"); }},
      {"unknown column", [](Subject& s) { s.row.jsonIs("a column that is not there", "1"); }},
  });
}

TEST(AllocationFailuresOfAnyRow, OfReading) {
  inEveryState({
      {"toJson", [](Subject& s) { s.result = s.source.toJson(); }},
      {"json", [](Subject& s) { s.result = s.source.json("tags"); }},
      {"text",
       [](Subject& s) {
         s.result = s.source.text("a name of a column, longer than a short string");
       }},
      {"address as text", [](Subject& s) { s.result = s.source.text("net"); }},
      {"nested row as text", [](Subject& s) { s.result = s.source.text("link"); }},
  });
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
