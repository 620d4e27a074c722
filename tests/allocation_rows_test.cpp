// Rows when memory runs out: every allocation of every operation fails in turn, and the row, its
// buffer and its columns are as before.

#include "allocation_failures.h"

#if KORVO_FAILING_ALLOCATOR

#include <Korvo/TableRow.h>
#include <Korvo/rowCheck.h>

#include <array>
#include <functional>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Korvo;
using alloctest::failEachAllocation;
using alloctest::Snapshot;

using Inner = RowLayout<2, Column<"number", std::uint32_t>, Column<"text", std::string>>;
using Layout =
    RowLayout<1, Column<"number", std::uint32_t>, Column<"text", std::string>,
              Column<"addr", IpGenAddr>, Column<"net", IpGenPrefix>,
              Column<"texts", std::vector<std::string>>, Column<"addrs", std::vector<IpGenAddr>>,
              Column<"nets", std::vector<IpGenPrefix>>, Column<"flags", std::vector<bool>>,
              Column<"inner", Nested<Inner>>>;
using Row = TableRow<Layout>;

constexpr len_t base = Layout::baseLength;
constexpr len_t textSlot = Layout::offset<"text">;
constexpr len_t addrSlot = Layout::offset<"addr">;
constexpr len_t netSlot = Layout::offset<"net">;
constexpr len_t textsSlot = Layout::offset<"texts">;
constexpr len_t addrsSlot = Layout::offset<"addrs">;
constexpr len_t netsSlot = Layout::offset<"nets">;
constexpr len_t flagsSlot = Layout::offset<"flags">;
constexpr len_t innerSlot = Layout::offset<"inner">;

/// The same columns in a row that never packs.
class AppendOnlyRow : public BaseRow {
 public:
  void create(oid_t oid = 0) { installNew(base, Layout::rowType, oid); }
  void adopt(const void* bytes, std::size_t length) {
    installCopy(bytes, length, base, Layout::rowType);
  }
  vcdType& vcd() const override {
    static vcdType slots(Layout::slots.begin(), Layout::slots.end());
    return slots;
  }
  len_t columnOffset(const std::string& name) const override {
    return detail::offsetOf(Layout::info, name);
  }
  std::string toJson() const override { return detail::rowAsJson(*this, Layout::info); }
};

/// What the operations work on, and where readers put what they read.
template <typename RowClass>
struct Subject {
  RowClass row;
  RowClass sharer;  // of the same buffer, or null
  Row source;
  std::string text = "a text that was there before, and is long";
  std::vector<std::string> texts{"an element that was there before", "b"};
  std::vector<IpGenAddr> addrs{IpGenAddr("1.2.3.4")};
  std::vector<IpGenPrefix> nets;
  std::string result;
};

template <typename RowClass>
void append(Snapshot& to, const RowClass& row) {
  if (row.isNull()) {
    to.contents += "null;";
    to.places.push_back(nullptr);
    return;
  }
  to.contents.append(reinterpret_cast<const char*>(row.rowBuf()), row.rowLength()) += ';';
  to.places.push_back(row.rowBuf());
}

template <typename RowClass>
Snapshot look(const Subject<RowClass>& subject) {
  Snapshot all;
  append(all, subject.row);
  append(all, subject.sharer);
  append(all, subject.source);
  all.contents += subject.text + ';';
  for (const std::string& text : subject.texts) all.contents += text + ';';
  for (const IpGenAddr& addr : subject.addrs) {
    all.contents.append(reinterpret_cast<const char*>(addr.bytes()), 16);
  }
  for (const IpGenPrefix& net : subject.nets) {
    all.contents.append(reinterpret_cast<const char*>(net.addr().bytes()), 16);
  }
  all.contents += subject.result;
  return all;
}

const std::string longText(300, 'l');

template <typename RowClass>
void fill(RowClass& row) {
  row.create(77);
  row.setColumn(textSlot, std::string("the text of the row, longer than a short string"), base);
  row.setColumn(addrSlot, IpGenAddr("2001:db8::1"), base);
  row.setColumn(netSlot, IpGenPrefix("10.0.0.0/8"), base);
  row.setColumn(textsSlot,
                std::vector<std::string>{"first", "", "an element longer than a short string"},
                base);
  row.setColumn(addrsSlot, std::vector<IpGenAddr>{IpGenAddr("10.0.0.1"), IpGenAddr("::1")}, base);
  row.setColumn(netsSlot,
                std::vector<IpGenPrefix>{IpGenPrefix("10.0.0.0/8"), IpGenPrefix("2001:db8::/32")},
                base);
  row.updateFixElemArray(flagsSlot, base, std::vector<bool>{true, false, true});
  TableRow<Inner> inner;
  inner.create(78);
  inner.set<"text">("text of the nested row, longer than a short string");
  row.setColumn(innerSlot, SubRowReference(inner.rowBuf()), base);
}

enum class State { null, fresh, full, shared, gaps, sharedGaps };
constexpr State states[] = {State::null,   State::fresh, State::full,
                            State::shared, State::gaps,  State::sharedGaps};
constexpr const char* stateNames[] = {"null", "fresh", "full", "shared", "gaps", "shared gaps"};

template <typename RowClass>
Subject<RowClass> make(State state) {
  Subject<RowClass> subject;
  fill(subject.source);
  if (state == State::null) return subject;
  if (state == State::fresh) {
    subject.row.create(1);
    return subject;
  }
  fill(subject.row);
  if (state == State::gaps || state == State::sharedGaps) {
    // Room enough in all, but only when it is packed; and too little behind the values.
    subject.row.setColumn(textSlot, std::string(), base);
    subject.row.setColumn(netsSlot, std::vector<IpGenPrefix>(), base);
    subject.row.setColumn(addrSlot, IpGenAddr(), base);
  }
  if (state == State::shared || state == State::sharedGaps) subject.sharer = subject.row;
  return subject;
}

template <typename RowClass>
struct Operation {
  const char* name;
  std::function<void(Subject<RowClass>&)> run;
};

/// Runs the operations in every state; each has to allocate in one of them at least.
template <typename RowClass>
void inEveryState(const std::vector<Operation<RowClass>>& operations) {
  for (const auto& [name, run] : operations) {
    unsigned failing = 0;
    for (const State state : states) {
      failing += failEachAllocation(
          std::string(name) + ", " + stateNames[static_cast<int>(state)],
          [state] { return make<RowClass>(state); }, run, look<RowClass>);
    }
    EXPECT_GT(failing, 0U) << name << " allocates nothing";
  }
}

template <typename RowClass>
class AllocationFailures : public testing::Test {};
using RowClasses = testing::Types<Row, AppendOnlyRow>;
TYPED_TEST_SUITE(AllocationFailures, RowClasses, );

// The results of readers are moved into the subject, which needs no memory.

TYPED_TEST(AllocationFailures, OfABuffer) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"create", [](S& s) { s.row.create(5); }},
      {"adopt", [](S& s) { s.row.adopt(s.source.rowBuf(), s.source.rowLength()); }},
      {"adopt a short one", [](S& s) { s.row.adopt(s.source.rowBuf(), 7); }},
      {"adopt a lying one", [](S& s) { s.row.adopt(s.source.rowBuf(), 60); }},
      {"rowOidIs", [](S& s) { s.row.rowOidIs(99); }},
      {"rowTypeIs", [](S& s) { s.row.rowTypeIs(99); }},
      {"setFixedColumn", [](S& s) { s.row.setFixedColumn(8, std::uint32_t{7}); }},
      {"clearRow", [](S& s) { s.row.clearRow(); }},
  });
}

TYPED_TEST(AllocationFailures, OfAValue) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"empty text", [](S& s) { s.row.setColumn(textSlot, std::string(), base); }},
      {"short text", [](S& s) { s.row.setColumn(textSlot, std::string("short"), base); }},
      {"long text", [](S& s) { s.row.setColumn(textSlot, longText, base); }},
      {"text that fits once packed",
       [](S& s) { s.row.setColumn(textSlot, StringValueReference(longText.data(), 80), base); }},
      {"text that is too long",
       [](S& s) { s.row.setColumn(textSlot, StringValueReference(nullptr, 65535), base); }},
      {"address",
       [](S& s) { s.row.setColumn(addrSlot, IpGenAddr(ipv6_, s.addrs[0].bytes()), base); }},
      {"prefix",
       [](S& s) { s.row.setColumn(netSlot, IpGenPrefix(Ip6Addr(s.addrs[0].bytes()), 64), base); }},
      {"nested row",
       [](S& s) { s.row.setColumn(innerSlot, SubRowReference(s.source.rowBuf()), base); }},
      {"single value", [](S& s) { s.row.updateVarElement(textSlot, base, longText); }},
      {"text of the row itself",
       [](S& s) {
         StringValueReference own;
         s.row.getColumn(textSlot, own);
         s.row.setColumn(netSlot, own, base);
       }},
  });
}

TYPED_TEST(AllocationFailures, OfAnArray) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"empty", [](S& s) { s.row.setColumn(textsSlot, std::vector<std::string>(), base); }},
      {"texts", [](S& s) { s.row.setColumn(textsSlot, s.texts, base); }},
      {"addresses", [](S& s) { s.row.setColumn(addrsSlot, s.addrs, base); }},
      {"into another column", [](S& s) { s.row.updateVarElemArray(textSlot, base, s.texts); }},
      {"prefixes", [nets = std::vector<IpGenPrefix>(40, IpGenPrefix("10.0.0.0/8"))](
                       S& s) { s.row.setColumn(netsSlot, nets, base); }},
      {"flags", [flags = std::vector<bool>(100, true)](
                    S& s) { s.row.updateFixElemArray(flagsSlot, base, flags); }},
      {"too long", [all = std::vector<std::string>(200, longText)](
                       S& s) { s.row.setColumn(textsSlot, all, base); }},
  });
}

TYPED_TEST(AllocationFailures, OfAWriter) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"empty text", [](S& s) { RowWriter(s.row, base).setColumn(textSlot, std::string()); }},
      {"short text", [](S& s) { RowWriter(s.row, base).setColumn(textSlot, std::string("s")); }},
      {"long text", [](S& s) { RowWriter(s.row, base).setColumn(textSlot, longText); }},
      {"text that fits once packed",
       [](S& s) {
         RowWriter(s.row, base).setColumn(textSlot, StringValueReference(longText.data(), 80));
       }},
      {"texts", [](S& s) { RowWriter(s.row, base).setColumn(textsSlot, s.texts); }},
      {"flags", [flags = std::vector<bool>(100, true)](
                    S& s) { RowWriter(s.row, base).updateFixElemArray(flagsSlot, flags); }},
      {"nested row",
       [](S& s) {
         RowWriter(s.row, base).setColumn(innerSlot, SubRowReference(s.source.rowBuf()));
       }},
      {"text of the row itself",
       [](S& s) {
         StringValueReference own;
         s.row.getColumn(textSlot, own);
         RowWriter(s.row, base).setColumn(netSlot, own);
       }},
  });
}

/// A row in the hands of a writer that has made its block larger than the row.
struct HalfWritten {
  Row row;
  std::unique_ptr<RowWriter> writer;
};

TEST(AllocationFailuresOfTypedRows, OfAWriterAtWork) {
  const auto make = [] {
    HalfWritten all;
    all.row.create(3);
    return all;
  };
  const auto look = [](const HalfWritten& all) {
    Snapshot seen;
    append(seen, all.row);
    return seen;
  };
  // Each is the last of several writes; the ones before it are part of the preparation.
  const auto lastOf = [&](const char* name, const auto& prepare, const auto& write) {
    return failEachAllocation(
        name,
        [&] {
          auto all = std::make_unique<HalfWritten>(make());
          all->writer = std::make_unique<RowWriter>(all->row, base);
          prepare(*all->writer);
          return all;
        },
        [&](auto& all) { write(*all->writer); }, [&](const auto& all) { return look(*all); });
  };
  const auto shortText = [](RowWriter& writer) { writer.setColumn(textSlot, std::string("text")); };
  const auto manyTexts = [&](RowWriter& writer) {
    shortText(writer);
    writer.setColumn(netSlot, longText);
    writer.setColumn(addrSlot, longText);
  };
  const auto longOne = [](RowWriter& writer) { writer.setColumn(innerSlot, longText); };
  const auto longest = [](RowWriter& writer) {
    writer.setColumn(innerSlot, std::vector<std::string>(10, longText));
  };
  const auto overwrite = [](RowWriter& writer) { writer.setColumn(textSlot, longText); };
  EXPECT_EQ(lastOf("within the block", shortText, longOne), 0U);
  EXPECT_GT(lastOf("beyond the block", manyTexts, longest), 0U);
  EXPECT_GT(lastOf("longer than before, so that all move", manyTexts, overwrite), 0U);
}

TYPED_TEST(AllocationFailures, OfACopiedColumn) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"value", [](S& s) { s.row.copyVarColumn(textSlot, s.source, textSlot, base); }},
      {"array", [](S& s) { s.row.copyVarColumn(textsSlot, s.source, netsSlot, base); }},
      {"nested row", [](S& s) { s.row.copyVarColumn(innerSlot, s.source, addrSlot, base); }},
      {"within the row", [](S& s) { s.row.copyVarColumn(innerSlot, s.row, textsSlot, base); }},
      {"of a nested row",
       [](S& s) {
         SubRowReference inner;
         s.row.getColumn(innerSlot, inner);
         s.row.copyVarColumn(Inner::offset<"text">, inner, addrSlot, base);
       }},
      {"nothing",
       [](S& s) { s.row.copyVarColumn(Inner::offset<"text">, TableRow<Inner>(), textSlot, base); }},
  });
}

TYPED_TEST(AllocationFailures, OfReading) {
  using S = Subject<TypeParam>;
  inEveryState<TypeParam>({
      {"text", [](S& s) { s.row.getColumn(innerSlot, s.text); }},
      {"texts", [](S& s) { s.row.getColumn(textsSlot, s.texts); }},
      {"texts, by the other name", [](S& s) { s.row.getVarElemArray(textsSlot, s.texts); }},
      {"addresses", [](S& s) { s.row.getColumn(addrsSlot, s.addrs); }},
      {"prefixes", [](S& s) { s.row.getColumn(netsSlot, s.nets); }},
      {"an element",
       [](S& s) { s.result = s.row.template arrayReference<std::string>(textsSlot)[2]; }},
      {"no element",
       [](S& s) { s.result = s.row.template arrayReference<std::string>(textsSlot)[3]; }},
      {"toString", [](S& s) { s.result = s.row.toString(); }},
      {"toJson", [](S& s) { s.result = s.row.toJson(); }},
      {"map of the fields", [](S& s) { s.result = std::string(varFieldMap(s.row).size(), 'x'); }},
      {"unknown column", [](S& s) { s.row.columnOffset("a column that the layout has not"); }},
  });
}

TYPED_TEST(AllocationFailures, OfPrinting) {
  using S = Subject<TypeParam>;
  // A stream tells what its buffer throws only when asked to.
  const auto print = [](S& s, const auto& value) {
    std::ostringstream out;
    out.exceptions(std::ios_base::badbit);
    out << value;
    s.result = std::move(out).str();
  };
  inEveryState<TypeParam>({
      {"the row", [=](S& s) { print(s, s.row); }},
      {"text",
       [=](S& s) {
         StringValueReference text;
         s.source.getColumn(textSlot, text);
         print(s, text);
       }},
      {"escaped text",
       [=](S& s) {
         StringValueReference text;
         s.source.getColumn(textSlot, text);
         print(s, FMT<StringValueReference>(text));
       }},
      {"address", [=](S& s) { print(s, s.source.template view<"addr">()); }},
      {"prefix",
       [=](S& s) {
         print(s, IpGenPrefixReference(s.source.template view<"addr">().addr(), ipv6_, 128));
       }},
  });
}

TYPED_TEST(AllocationFailures, OfWhatNeedsNoMemory) {
  using S = Subject<TypeParam>;
  const Operation<TypeParam> operations[] = {
      {"sharing and letting go",
       [](S& s) {
         TypeParam copy = s.row;
         s.sharer.shareContents(s.row);
         s.row.nullifyRow();
         s.row = std::move(copy);
       }},
      {"writing over a longer value of a row of one's own",
       [](S& s) {
         if (!s.sharer.isNull()) return;
         s.row.setColumn(innerSlot, StringValueReference("x", 1), base);
         s.row.setColumn(textSlot, StringValueReference(), base);
       }},
      {"comparing",
       [](S& s) {
         s.row.template columnEqual<StringValueReference>(textSlot, s.source, textSlot);
         s.row.template columnLess<IpGenAddrReference>(addrSlot, s.source, addrSlot);
         s.row.template columnHash<IpGenPrefixReference>(netSlot);
       }},
      {"checking",
       [](S& s) {
         if (checkRow(s.row.rowBuf(), s.row.rowLength(), Layout::info)) s.row.nullifyRow();
       }},
  };
  for (const auto& [name, run] : operations) {
    for (const State state : {State::full, State::shared}) {
      EXPECT_EQ(failEachAllocation(
                    name, [=] { return make<TypeParam>(state); }, run, look<TypeParam>),
                0U)
          << name;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The variable area, whose caller has made the buffer exclusive

TYPED_TEST(AllocationFailures, OfRoom) {
  using S = Subject<TypeParam>;
  const auto makeExclusive = [](State state) {
    auto subject = make<TypeParam>(state);
    subject.sharer.nullifyRow();
    return subject;
  };
  unsigned failing = 0;
  for (const State state : {State::fresh, State::full, State::gaps}) {
    for (const auto needed : std::initializer_list<len_t>{1, 60, 90, 120, 1000}) {
      failing += failEachAllocation(
          "makeFreeSpace", [=] { return makeExclusive(state); },
          [needed](S& s) { s.row.makeFreeSpace(textSlot, needed, base); }, look<TypeParam>);
    }
    failEachAllocation(
        "compactVariableData", [=] { return makeExclusive(state); },
        [](S& s) { s.row.compactVariableData(base); }, look<TypeParam>);
  }
  EXPECT_GT(failing, 0U);
}

TYPED_TEST(AllocationFailures, OfMovingAValueInASharedBuffer) {
  using S = Subject<TypeParam>;
  for (const bool all : {false, true}) {
    EXPECT_GT(failEachAllocation(
                  "move", [] { return make<TypeParam>(State::sharedGaps); },
                  [all](S& s) {
                    if (all) s.row.compactVariableData(base);
                    s.row.moveVariableColumn(&VColType::at(s.row.rowBuf(), netSlot), netSlot, base);
                  },
                  look<TypeParam>),
              0U);
  }
}

/// More columns than are packed without an allocation.
class WideRow : public BaseRow {
 public:
  static constexpr len_t count = 100;
  static constexpr len_t baseLength = 8 + 4 * count;
  static constexpr len_t slot(int column) { return static_cast<len_t>(8 + 4 * column); }

  void create() { installNew(baseLength, 9, 1); }
  vcdType& vcd() const override {
    static vcdType slots = [] {
      vcdType all;
      for (int i = 0; i < count; ++i) all.push_back(slot(i));
      return all;
    }();
    return slots;
  }
  bool isFullyDefined() const override { return true; }
};

struct WideSubject {
  WideRow row;
  WideRow sharer;
};

TEST(AllocationFailuresOfWideRows, OfPacking) {
  for (const bool shared : {false, true}) {
    const auto makeWide = [shared] {
      WideSubject subject;
      subject.row.create();
      for (int i = 0; i < WideRow::count; ++i) {
        subject.row.setColumn(WideRow::slot(i), std::string(20, static_cast<char>('0' + i % 10)),
                              WideRow::baseLength);
      }
      for (int i = 0; i < WideRow::count; i += 2) {
        subject.row.setColumn(WideRow::slot(i), std::string(), WideRow::baseLength);
      }
      if (shared) subject.sharer = subject.row;
      return subject;
    };
    const auto lookWide = [](const WideSubject& subject) {
      Snapshot all;
      append(all, subject.row);
      append(all, subject.sharer);
      return all;
    };
    // Within what packing gives back, and beyond it: then the order and the growth may fail.
    for (const std::size_t length : {std::size_t{500}, std::size_t{5000}}) {
      const unsigned failing = failEachAllocation(
          "packing", makeWide,
          [text = std::string(length, 'n')](WideSubject& s) {
            s.row.setColumn(WideRow::slot(50), text, WideRow::baseLength);
          },
          lookWide);
      const unsigned expected = (length == 5000 ? 2U : 1U) + (shared ? 2U : 0U);
      EXPECT_EQ(failing, 2 * expected) << shared << length;
    }
    failEachAllocation(
        "compacting", makeWide,
        [](WideSubject& s) { s.row.compactVariableData(WideRow::baseLength); }, lookWide);
  }
}

// ---------------------------------------------------------------------------------------------
// Typed rows

TEST(AllocationFailuresOfTypedRows, OfWriting) {
  using S = Subject<Row>;
  inEveryState<Row>({
      {"number", [](S& s) { s.row.set<"number">(4711U); }},
      {"text", [](S& s) { s.row.set<"text">(longText); }},
      {"text too long", [](S& s) { s.row.set<"text">(std::string_view(longText.data(), 40000)); }},
      {"address", [](S& s) { s.row.set<"addr">(s.addrs[0]); }},
      {"prefix", [](S& s) { s.row.set<"net">(IpGenPrefix(IpAddr(10U), 32)); }},
      {"texts", [](S& s) { s.row.set<"texts">(s.texts); }},
      {"flags", [flags = std::vector<bool>(50)](S& s) { s.row.set<"flags">(flags); }},
      {"nested row",
       [](S& s) {
         const SubRow<Inner> inner = s.source.view<"inner">();
         s.row.set<"inner">(inner);
       }},
  });
}

TEST(AllocationFailuresOfTypedRows, OfReading) {
  using S = Subject<Row>;
  inEveryState<Row>({
      {"text", [](S& s) { s.result = s.row.get<"text">(); }},
      {"texts", [](S& s) { s.texts = s.row.get<"texts">(); }},
      {"addresses", [](S& s) { s.addrs = s.row.get<"addrs">(); }},
      {"prefixes", [](S& s) { s.nets = s.row.get<"nets">(); }},
      {"flags", [](S& s) { s.result = std::string(s.row.get<"flags">().size() + 20, 'f'); }},
      {"text of the nested row", [](S& s) { s.result = s.row.get<"inner">().get<"text">(); }},
      {"nested row as JSON", [](S& s) { s.result = s.row.get<"inner">().toJson(); }},
      {"unknown column",
       [](S& s) { s.row.get<"inner">().columnOffset("a column that the layout has not"); }},
  });
}

// The list of a class's columns is made once, at first use: when that fails, the next use makes it.
TEST(AllocationFailuresOfTypedRows, OfTheListOfColumns) {
  using FirstUse = RowLayout<3, Column<"a", std::string>, Column<"b", std::vector<std::string>>>;
  TableRow<FirstUse> row;
  unsigned failing = 0;
  for (unsigned n = 0;; ++n) {
    const alloctest::FailureScope scope(n, alloctest::Failing::fromThenOn);
    try {
      row.vcd();
      break;
    } catch (const std::bad_alloc&) {
      ++failing;
    }
  }
  EXPECT_GT(failing, 0U);
  EXPECT_EQ(row.vcd(), (BaseRow::vcdType{8, 12}));
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR
